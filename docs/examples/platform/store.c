/* The store: records in an array, sorted by the bytes of their keys. quillplatform/pss.h says what each function
 * must do; a platform that keeps this on disk also owes what is said there about durability and erasure. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform.h"

struct record {
    pss_descriptor key, value;
};

static struct store {
    struct record* records;
    uint32_t count;
    uint32_t version;
    pss_descriptor cursor; /* the key that the cursor is at or was at; null bytes: at no key */
    int is_open;
} store_1; /* the only one, with the handle 1 */

static struct store* find_store(uint32_t handle) { return handle == 1 && store_1.is_open ? &store_1 : NULL; }

/* Secrets are stored here, so memory is zeroed before it is released. */
static void release(pss_descriptor* block) {
    if (block->bytes != NULL) explicit_bzero(block->bytes, block->length);
    free(block->bytes);
    block->bytes = NULL;
    block->length = 0;
}

static uint32_t copy(pss_descriptor* to, const pss_descriptor* from) {
    void* bytes = malloc(from->length > 0 ? from->length : 1);
    if (bytes == NULL) return PSS_NO_MEMORY;
    if (from->length > 0) memcpy(bytes, from->bytes, from->length);
    release(to);
    to->bytes = bytes;
    to->length = from->length;
    return PSS_OK;
}

static int compare(const pss_descriptor* a, const pss_descriptor* b) {
    const uint32_t common = a->length < b->length ? a->length : b->length;
    const int order = common > 0 ? memcmp(a->bytes, b->bytes, common) : 0;
    return order != 0 ? order : (a->length > b->length) - (a->length < b->length);
}

/* Returns the index of the first record whose key is not less than `key`, and whether it is that key. */
static uint32_t find(const struct store* store, const pss_descriptor* key, int* exact) {
    uint32_t low = 0, high = store->count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        if (compare(&store->records[middle].key, key) < 0)
            low = middle + 1;
        else
            high = middle;
    }
    *exact = low < store->count && compare(&store->records[low].key, key) == 0;
    return low;
}

static uint32_t check(const struct store* store, const pss_descriptor* key) {
    if (store == NULL) return PSS_BAD_HANDLE;
    if (key == NULL || key->bytes == NULL || key->length == 0 || key->length > PSS_MAX_KEY)
        return PSS_BAD_ARGUMENT;
    return PSS_OK;
}

uint32_t pss2_open(const char* name, uint32_t flags, uint32_t mode, uint32_t zero, const uint32_t* parameters,
                   uint32_t* status) {
    (void)mode, (void)zero;
    if (*name == '\0')
        *status = PSS_BAD_ARGUMENT;
    else if (store_1.is_open)
        *status = PSS_IN_USE;
    else if ((flags & PSS_CREATE) == 0)
        *status = PSS_NO_STORE; /* nothing outlives the process */
    else
        *status = PSS_OK;
    if (*status != PSS_OK) return 0;
    store_1.version = parameters[3];
    store_1.is_open = 1;
    return 1;
}

uint32_t pss2_close(uint32_t handle) {
    struct store* store = find_store(handle);
    uint32_t i;
    if (store == NULL) return PSS_BAD_HANDLE;
    for (i = 0; i < store->count; ++i) {
        release(&store->records[i].key);
        release(&store->records[i].value);
    }
    free(store->records);
    release(&store->cursor);
    memset(store, 0, sizeof *store);
    return PSS_OK;
}

uint32_t pss_version_set(uint32_t handle, uint32_t one, uint32_t version) {
    struct store* store = find_store(handle);
    if (store == NULL) return PSS_BAD_HANDLE;
    if (one != 1) return PSS_BAD_ARGUMENT;
    store->version = version;
    return PSS_OK;
}

pss_descriptor* pss2_fetch(uint32_t handle, const pss_descriptor* key, uint32_t* status) {
    struct store* store = find_store(handle);
    uint32_t index;
    int exact;
    if ((*status = check(store, key)) != PSS_OK) return NULL;
    index = find(store, key, &exact);
    if (exact) return &store->records[index].value;
    *status = PSS_NO_KEY;
    return NULL;
}

uint32_t pss2_store(uint32_t handle, const pss_descriptor* key, const pss_descriptor* value) {
    struct store* store = find_store(handle);
    struct record added = {{NULL, 0}, {NULL, 0}};
    struct record* grown;
    uint32_t index, status = check(store, key);
    int exact;
    if (status != PSS_OK) return status;
    if (value == NULL || value->length > PSS_MAX_VALUE || (value->bytes == NULL && value->length > 0))
        return PSS_BAD_ARGUMENT;
    index = find(store, key, &exact);
    if (exact) return copy(&store->records[index].value, value);

    grown = realloc(store->records, (store->count + 1) * sizeof *grown);
    if (grown == NULL) return PSS_NO_MEMORY;
    store->records = grown;
    if (copy(&added.key, key) != PSS_OK || copy(&added.value, value) != PSS_OK) {
        release(&added.key);
        return PSS_NO_MEMORY;
    }
    memmove(grown + index + 1, grown + index, (store->count - index) * sizeof *grown);
    grown[index] = added;
    ++store->count;
    return PSS_OK;
}

uint32_t pss2_delete(uint32_t handle, const pss_descriptor* key, uint32_t count) {
    struct store* store = find_store(handle);
    uint32_t index, status = check(store, key);
    int exact;
    if (status != PSS_OK) return status;
    if (count != 1) return PSS_BAD_ARGUMENT;
    index = find(store, key, &exact);
    if (!exact) return PSS_NO_KEY;
    release(&store->records[index].key);
    release(&store->records[index].value);
    --store->count;
    memmove(store->records + index, store->records + index + 1,
            (store->count - index) * sizeof(struct record));
    return PSS_OK;
}

/* Puts the cursor at a record, or at none. */
static uint32_t place(struct store* store, uint32_t index) {
    if (index < store->count) return copy(&store->cursor, &store->records[index].key);
    release(&store->cursor);
    return PSS_OK;
}

uint32_t pss2_move2key(uint32_t* handle, uint32_t mode, const pss_descriptor* key, uint32_t* status) {
    struct store* store = find_store(*handle);
    uint32_t index;
    int exact;
    if ((*status = check(store, key)) != PSS_OK) return *status;
    if (mode != PSS_MODE) return *status = PSS_BAD_ARGUMENT;
    index = find(store, key, &exact);
    *status = place(store, index);
    if (*status == PSS_OK && !exact) *status = PSS_NO_KEY;
    return *status;
}

uint32_t pss2_move2location(uint32_t* handle, uint32_t mode, uint32_t location, uint32_t* status) {
    struct store* store = find_store(*handle);
    uint32_t index;
    int exact;
    if (store == NULL) return *status = PSS_BAD_HANDLE;
    if (mode != PSS_MODE || location != PSS_NEXT) return *status = PSS_BAD_ARGUMENT;
    if (store->cursor.bytes == NULL) return *status = PSS_NO_KEY;
    index = find(store, &store->cursor, &exact);
    if (exact) ++index;
    *status = place(store, index);
    if (*status == PSS_OK && index == store->count) *status = PSS_NO_KEY;
    return *status;
}

/* The record at the cursor, or null with the reason in *status. */
static struct record* at_cursor(uint32_t handle, uint32_t* status) {
    struct store* store = find_store(handle);
    uint32_t index;
    int exact = 0;
    *status = store == NULL ? PSS_BAD_HANDLE : PSS_NO_KEY;
    if (store == NULL || store->cursor.bytes == NULL) return NULL;
    index = find(store, &store->cursor, &exact);
    if (!exact) return NULL;
    *status = PSS_OK;
    return &store->records[index];
}

pss_descriptor* pss2_getkey(uint32_t handle, uint32_t* status) {
    struct record* found = at_cursor(handle, status);
    return found != NULL ? &found->key : NULL;
}

pss_descriptor* pss2_getvalue(uint32_t handle, uint32_t* status) {
    struct record* found = at_cursor(handle, status);
    return found != NULL ? &found->value : NULL;
}

const char* syserr2str(uint32_t status) {
    static char text[32];
    switch (status) {
#define TEXT_OF(name, value, words) \
    case value:                     \
        return words;
        PSS_STATUS_LIST(TEXT_OF)
#undef TEXT_OF
    default:
        return snprintf(text, sizeof text, "status %#x", status) > 0 ? text : "a status";
    }
}
