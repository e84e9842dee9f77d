#include "base/stg.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/pfm.h"

void* stg_malloc(size_t size) {
  void* p = malloc(size ? size : 1);
  if (!p) pfm_panic("Not enough memory!");
  return p;
}

void stg_free(void* p) { free(p); }

char* stg_strdup(const char* s) {
  size_t n = strlen(s) + 1;
  char* p = static_cast<char*>(stg_malloc(n));
  memcpy(p, s, n);
  return p;
}

struct stg_area_t {
  size_t chunk;
  std::vector<char*> blocks;
  size_t used = 0;  // bytes used in the last block
  size_t cap = 0;   // size of the last block
};

stg_area_t* stg_create_area(size_t chunk_size) {
  auto* a = new stg_area_t;
  a->chunk = chunk_size ? chunk_size : 1024;
  return a;
}

void* stg_area_alloc(stg_area_t* a, size_t size) {
  size = (size + 15) & ~static_cast<size_t>(15);
  if (a->blocks.empty() || a->used + size > a->cap) {
    size_t cap = size > a->chunk ? size : a->chunk;
    a->blocks.push_back(static_cast<char*>(stg_malloc(cap)));
    a->used = 0;
    a->cap = cap;
  }
  void* p = a->blocks.back() + a->used;
  a->used += size;
  return p;
}

char* stg_area_strdup(stg_area_t* a, const char* s) {
  size_t n = strlen(s) + 1;
  char* p = static_cast<char*>(stg_area_alloc(a, n));
  memcpy(p, s, n);
  return p;
}

void stg_destroy_area(stg_area_t* a) {
  if (!a) return;
  for (char* b : a->blocks) free(b);
  delete a;
}
