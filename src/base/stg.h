// stg_: memory. stg_malloc never returns null (the process panics when memory is gone).
// An area is a bump allocator whose blocks all go when the area is destroyed.
#pragma once

#include <cstddef>

void* stg_malloc(size_t size);
void stg_free(void* p);
char* stg_strdup(const char* s);

struct stg_area_t;
stg_area_t* stg_create_area(size_t chunk_size);
void* stg_area_alloc(stg_area_t* area, size_t size);
char* stg_area_strdup(stg_area_t* area, const char* s);
void stg_destroy_area(stg_area_t* area);
