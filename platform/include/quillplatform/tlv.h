/* TLV utilities: structures to messages of tagged fields and back, as field tables describe them
 * (tlvu_table_header and tlvu_field_descriptor, quillsecurity/notify.h).
 *
 * The reference writes a message as its fields one behind the other:
 *   field id   32 bits, big-endian
 *   length     32 bits, big-endian: bytes of the value
 *   value      a text without its terminator; numbers (a block of 2, 4 or 8 bytes an element) big-endian; any
 *              other block, and what a field's own converter makes, byte for byte
 * A message is read as hostile: nothing is read behind it or written behind a structure. Fields that the
 * table does not have are skipped, fields that the message does not have are zero in the structure. A message
 * that is cut inside a field, has one of the table's fields twice, or one whose length does not suit the
 * table, is refused whole. Tables are trusted.
 *
 * A TLV array is 32 bits, big-endian, with the size of the whole array in bytes, these four included, and
 * then elements in the form of fields.
 */
#ifndef QUILLPLATFORM_TLV_H
#define QUILLPLATFORM_TLV_H

#include <stdint.h>

/* What the functions below answer. Converters of a table answer 0 or a number of their own, which is passed
 * on. */
enum tlvu_status {
    TLVU_OK = 0,
    TLVU_NO_MEMORY = 1,
    TLVU_MALFORMED = 2,    /* the message cannot be read, or a converter's value does not fit its field */
    TLVU_NO_FIELD = 3,     /* the message has no such field, or no further one */
    TLVU_BAD_ARGUMENT = 73 /* a null argument, or a mode that does not exist */
};

/* Modes of tlvu_table_convert_tlv_to_struct. */
#define TLVU_MODE_ALLOCATE 0u
#define TLVU_MODE_FILL 1u

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A walk over the fields of a message. */
typedef struct tlvu_field_itr {
    const void* table;
    const uint8_t* position;
    const uint8_t* end;
} tlvu_field_itr;

/* Writes a structure as a message: *tlv receives a block of *tlv_length bytes, which the caller frees with
 * free(3). Both are written only with TLVU_OK. A text without a terminator in its field is the whole field.
 */
uint32_t tlvu_table_convert_struct_to_tlv(const void* table, const void* structure, void** tlv,
                                          uint32_t* tlv_length);

/* Reads a message into a structure of the table's size, which is written whole, and only with TLVU_OK.
 *   TLVU_MODE_FILL      *structure is the address of the structure
 *   TLVU_MODE_ALLOCATE  *structure receives a new one, which the caller frees with free(3)
 * A text that is as long as its field has no terminator there. */
uint32_t tlvu_table_convert_tlv_to_struct(const void* table, const void* tlv, uint32_t tlv_length,
                                          void** structure, uint32_t mode);

/* The size of the structure that a message, which is checked, would be read into. */
uint32_t tlvu_table_get_struct_size_from_tlv(const void* table, const void* tlv, uint32_t tlv_length,
                                             uint32_t* size);

/* The size of the message that a structure would be written as; 0 for a null argument. */
uint32_t tlvu_table_size(const void* table, const void* structure);

/* The value of one field, as it stands in the message: *value points into it. TLVU_NO_FIELD also for a field
 * that the table does not have. */
uint32_t tlvu_get_field(const void* table, const void* tlv, uint32_t tlv_length, uint32_t field_id,
                        void** value, uint32_t* value_length);

/* Begins a walk over those fields of a message that the table has, and takes its next step, with
 * TLVU_NO_FIELD at the end. Values as above. A field that stands twice is met twice. */
uint32_t tlvu_field_itr_init(const void* table, const void* tlv, uint32_t tlv_length, tlvu_field_itr* itr);
uint32_t tlvu_field_itr_get_next(tlvu_field_itr* itr, uint32_t* field_id, void** value,
                                 uint32_t* value_length);

/* Memory for converters, which is released with free(3); null when there is none left. */
void* tlvu_malloc(uint32_t size);

/* Reports a failure: the reference writes it to the system log. */
void tlvu_error_print(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* The size in bytes of a TLV array, with index 0, or of its element `index`, counted from 1, with id and
 * length; 0 for one that it does not have. The array must be there as far as its first word says: whoever
 * received it compares that size, which is what index 0 gives, with what was received. */
uint32_t tlv_array_size_get(const void* array, uint32_t index);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
