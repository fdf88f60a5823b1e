// sharers.cpp: the lists of shared system objects.
#include "utils/sdk/sharers.h"

#include <new>

namespace Utils {

Sharers::Entry** Sharers::find(YIF_Handle handle) {
  Entry** link = &first_;
  while (*link && (*link)->handle_ != handle) link = &(*link)->next_;
  return link;
}

void Sharers::add(YIF_Handle handle) {
  Entry* entry = *find(handle);
  if (entry) {
    entry->others_++;
  } else if ((entry = new (std::nothrow) Entry{handle, 1, first_})) {
    first_ = entry;
  } else {
    lost_ = true;
  }
}

bool Sharers::remove(YIF_Handle handle) {
  Entry** link = find(handle);
  Entry* entry = *link;
  if (!entry) return !lost_;
  if (--entry->others_ == 0) {
    *link = entry->next_;
    delete entry;
  }
  return false;
}

}  // namespace Utils
