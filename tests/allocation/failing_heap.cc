#include "tests/allocation/failing_heap.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

#ifdef QUILL_SANITIZE
#define BELOW(function) __interceptor_##function
#else
#define BELOW(function) __libc_##function
#endif

extern "C" {
void* BELOW(malloc)(size_t);
void* BELOW(calloc)(size_t, size_t);
void* BELOW(realloc)(void*, size_t);
void* BELOW(memalign)(size_t, size_t);
void BELOW(free)(void*);
}

namespace {

Refusals plan;
uint32_t count = 0;
bool met = false;
int64_t in_use = 0;
bool watched = false;
int in_fakes = 0;

bool refuse_this() {
    if (!watched) return false;
    ++count;
    if (plan.first == 0 || count < plan.first || (count > plan.first && !plan.for_good)) return false;
    met = true;
    errno = ENOMEM;
    return true;
}

void* counted(void* block) {
    if (block != nullptr) ++in_use;
    return block;
}

// Stands before each block of operator new.
struct alignas(std::max_align_t) Mark {
    bool product;
};

}  // namespace

void refuse(Refusals refusals) {
    plan = refusals;
    count = 0;
    met = false;
}

bool refused() { return met; }

Watching::Watching(bool on) : before_(std::exchange(watched, on)) {}
Watching::~Watching() { watched = before_; }

int64_t blocks_in_use() { return in_use; }

#pragma GCC visibility push(default)
extern "C" {

void* malloc(size_t size) { return refuse_this() ? nullptr : counted(BELOW(malloc)(size)); }
void* calloc(size_t items, size_t size) {
    return refuse_this() ? nullptr : counted(BELOW(calloc)(items, size));
}
void* memalign(size_t alignment, size_t size) {
    return refuse_this() ? nullptr : counted(BELOW(memalign)(alignment, size));
}
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void** block, size_t alignment, size_t size) {
    void* made = memalign(alignment, size);
    if (made != nullptr) *block = made;
    return made == nullptr ? ENOMEM : 0;
}

void free(void* block) {
    if (block != nullptr) --in_use;
    BELOW(free)(block);
}

// A size of 0 frees the block, as the C library has it.
void* realloc(void* block, size_t size) {
    if (block == nullptr) return malloc(size);
    if (size != 0 && refuse_this()) return nullptr;
    void* moved = BELOW(realloc)(block, size);
    if (size == 0 && moved == nullptr) --in_use;
    return moved;
}
void* reallocarray(void* block, size_t items, size_t size) {
    size_t bytes;
    if (!__builtin_mul_overflow(items, size, &bytes)) return realloc(block, bytes);
    errno = ENOMEM;
    return nullptr;
}

// Called around each function of the fakes, which are compiled with -finstrument-functions.
__attribute__((no_instrument_function)) void __cyg_profile_func_enter(void*, void*) { ++in_fakes; }
__attribute__((no_instrument_function)) void __cyg_profile_func_exit(void*, void*) { --in_fakes; }

}  // extern "C"

void* operator new(size_t size) {
    const bool product = watched && in_fakes == 0;
    auto* mark =
        static_cast<Mark*>(product ? malloc(sizeof(Mark) + size) : BELOW(malloc)(sizeof(Mark) + size));
    if (mark == nullptr) throw std::bad_alloc();
    mark->product = product;
    return mark + 1;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](size_t size, const std::nothrow_t& nothrow) noexcept {
    return operator new(size, nothrow);
}

void operator delete(void* object) noexcept {
    if (object == nullptr) return;
    Mark* mark = static_cast<Mark*>(object) - 1;
    if (mark->product)
        free(mark);
    else
        BELOW(free)(mark);
}
void operator delete[](void* object) noexcept { operator delete(object); }
void operator delete(void* object, size_t) noexcept { operator delete(object); }
void operator delete[](void* object, size_t) noexcept { operator delete(object); }
void operator delete(void* object, const std::nothrow_t&) noexcept { operator delete(object); }
void operator delete[](void* object, const std::nothrow_t&) noexcept { operator delete(object); }
#pragma GCC visibility pop
