// String list: header plus inline item pointers, grown by realloc through the
// caller's pointer (capacity doubles, so appends are amortised O(1)).
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "merocore.h"

static_assert(offsetof(MLIBSZLIST, capacity) == 0, "capacity is header word 0");
static_assert(offsetof(MLIBSZLIST, count) == sizeof(int), "count is header word 1");
static_assert(offsetof(MLIBSZLIST, items) == 2 * sizeof(int), "items follow the two words");

namespace {

MLIBSZLIST* AllocList(size_t capacity) {
  auto* list = static_cast<MLIBSZLIST*>(
      std::malloc(offsetof(MLIBSZLIST, items) + capacity * sizeof(char*)));
  if (!list) {
    errno = ENOMEM;
    return nullptr;
  }
  list->capacity = static_cast<int>(capacity);
  list->count = 0;
  return list;
}

}  // namespace

extern "C" {

MLIBSZLIST* MLIBCSzListAlloc(int capacity) {
  if (capacity > MERO_SZ_MAX_ITEMS) {
    errno = EINVAL;
    return nullptr;
  }
  return AllocList(capacity < 1 ? 1 : static_cast<size_t>(capacity));
}

const char* MLIBCSzListGet(const MLIBSZLIST* list, int index) {
  if (!list || index < 0 || index >= list->count) return nullptr;
  return list->items[index];
}

int MLIBCSzListAdd(MLIBSZLIST** list, const char* text) {
  if (!list || !*list || !text) {
    errno = EINVAL;
    return -1;
  }
  MLIBSZLIST* current = *list;
  if (current->count >= MERO_SZ_MAX_ITEMS) {
    errno = ENOMEM;
    return -1;
  }
  char* copy = strdup(text);
  if (!copy) return -1;
  if (current->count == current->capacity) {
    size_t grown = static_cast<size_t>(current->capacity) * 2;
    if (grown > MERO_SZ_MAX_ITEMS) grown = MERO_SZ_MAX_ITEMS;
    auto* moved = static_cast<MLIBSZLIST*>(
        std::realloc(current, offsetof(MLIBSZLIST, items) + grown * sizeof(char*)));
    if (!moved) {
      std::free(copy);
      errno = ENOMEM;
      return -1;
    }
    moved->capacity = static_cast<int>(grown);
    current = moved;
    *list = moved;
  }
  current->items[current->count] = copy;
  return current->count++;
}

void MLIBCSzListFree(MLIBSZLIST* list) {
  if (!list) return;
  for (int i = 0; i < list->count; ++i) std::free(list->items[i]);
  std::free(list);
}

}  // extern "C"
