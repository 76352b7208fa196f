/* TLV functions: conversion of structures to messages of tagged fields and back, according to field tables
 * (tlvu_table_header and tlvu_field_descriptor, quillsecurity/notify.h).
 *
 * A message of the reference is a sequence of fields:
 *   field id   32 bits, big-endian
 *   length     32 bits, big-endian: bytes of the value
 *   value      a text without its terminator; numbers (blocks with 2, 4 or 8 bytes per element) big-endian;
 *              any other block, and the output of a field's own converter, unchanged
 * Messages are not trusted: nothing is read past a message or written past a structure. Fields that are not
 * in the table are skipped; fields that are not in the message are zero in the structure. A message that ends
 * within a field, has a field of the table twice, or has a field of a length that does not match the table,
 * is refused as a whole. Tables are trusted.
 *
 * A TLV array is the size of the whole array in bytes, these four included, as 32 bits, big-endian, followed
 * by elements in the form of fields.
 */
#ifndef QUILLPLATFORM_TLV_H
#define QUILLPLATFORM_TLV_H

#include <stdint.h>

/* Results of the functions below. A converter of a table returns 0 or another number, which is
 * returned unchanged. */
enum tlvu_status {
    TLVU_OK = 0,
    TLVU_NO_MEMORY = 1,
    TLVU_MALFORMED = 2,    /* the message cannot be parsed, or a converter's value does not fit its field */
    TLVU_NO_FIELD = 3,     /* the message has no such field, or no further one */
    TLVU_BAD_ARGUMENT = 73 /* a null argument or an unknown mode */
};

/* Modes of tlvu_table_convert_tlv_to_struct(). */
#define TLVU_MODE_ALLOCATE 0u
#define TLVU_MODE_FILL 1u

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Position of a walk over the fields of a message. */
typedef struct tlvu_field_itr {
    const void* table;
    const uint8_t* position;
    const uint8_t* end;
} tlvu_field_itr;

/* Converts a structure to a message. Stores a block of *tlv_length bytes in *tlv, which the caller releases
 * with free(3). On failure both are unchanged. A text without a terminator is the whole field. */
uint32_t tlvu_table_convert_struct_to_tlv(const void* table, const void* structure, void** tlv,
                                          uint32_t* tlv_length);

/* Converts a message to a structure of the table's size. With TLVU_OK every byte of the structure is written;
 * on failure it is unchanged.
 *   TLVU_MODE_FILL      *structure is the address of the structure
 *   TLVU_MODE_ALLOCATE  stores a new structure in *structure, which the caller releases with free(3)
 * A text that is as long as its field has no terminator in the structure. */
uint32_t tlvu_table_convert_tlv_to_struct(const void* table, const void* tlv, uint32_t tlv_length,
                                          void** structure, uint32_t mode);

/* Checks a message and stores the size, in bytes, of the structure that it would be converted to. */
uint32_t tlvu_table_get_struct_size_from_tlv(const void* table, const void* tlv, uint32_t tlv_length,
                                             uint32_t* size);

/* Returns the size in bytes of the message that a structure would be converted to; 0 for a null argument. */
uint32_t tlvu_table_size(const void* table, const void* structure);

/* Finds a field. Stores the address of its unconverted value in the message in *value, and its length in
 * bytes. TLVU_NO_FIELD also for a field that is not in the table. */
uint32_t tlvu_get_field(const void* table, const void* tlv, uint32_t tlv_length, uint32_t field_id,
                        void** value, uint32_t* value_length);

/* Start a walk over the fields of a message that are in the table, and return the next field; TLVU_NO_FIELD
 * at the end. Values are as above. A duplicate field is returned twice. */
uint32_t tlvu_field_itr_init(const void* table, const void* tlv, uint32_t tlv_length, tlvu_field_itr* itr);
uint32_t tlvu_field_itr_get_next(tlvu_field_itr* itr, uint32_t* field_id, void** value,
                                 uint32_t* value_length);

/* Allocates memory for converters, to be released with free(3). Returns null if memory ran out. */
void* tlvu_malloc(uint32_t size);

/* Reports a failure. The reference writes it to the system log. */
void tlvu_error_print(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* Returns the size in bytes of a TLV array, for index 0, or of an element with its id and length, for an
 * index from 1 on; 0 if there is no such element. The array must be as long as its first word says: the
 * caller compares the size for index 0 with the number of bytes that it received, before any other use. */
uint32_t tlv_array_size_get(const void* array, uint32_t index);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
