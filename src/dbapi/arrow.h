// Arrow's C data and C stream interfaces: structures whose layout never changes. Who fills one
// sets its `release`; who has one calls that once, or moves the structure and clears it.
#pragma once

#include <cstdint>

constexpr std::int64_t kArrowNullable = 2;

struct ArrowSchema {
    const char* format;
    const char* name;
    const char* metadata;
    std::int64_t flags;
    std::int64_t n_children;
    ArrowSchema** children;
    ArrowSchema* dictionary;
    void (*release)(ArrowSchema*);
    void* private_data;
};

struct ArrowArray {
    std::int64_t length;
    std::int64_t null_count;
    std::int64_t offset;
    std::int64_t n_buffers;
    std::int64_t n_children;
    const void** buffers;
    ArrowArray** children;
    ArrowArray* dictionary;
    void (*release)(ArrowArray*);
    void* private_data;
};

struct ArrowArrayStream {
    int (*get_schema)(ArrowArrayStream*, ArrowSchema* out);
    int (*get_next)(ArrowArrayStream*, ArrowArray* out);
    const char* (*get_last_error)(ArrowArrayStream*);
    void (*release)(ArrowArrayStream*);
    void* private_data;
};

// The names of the capsules in which Python objects hand them over.
constexpr const char* kSchemaCapsule = "arrow_schema";
constexpr const char* kArrayCapsule = "arrow_array";
constexpr const char* kStreamCapsule = "arrow_array_stream";
