// SPDX-License-Identifier: MIT
// Allocation of objects, and messages.
#include "utils/sdk/object.h"

#include <cstdarg>
#include <new>

#include "utils/sdk/logging/bounded_text.h"
#include "utils/sdk/memory/text_copy.h"

namespace Utils {

Object::~Object() {}

void* Object::operator new(std::size_t size) noexcept { return ::operator new(size, std::nothrow); }

void Object::operator delete(void* mem) noexcept { ::operator delete(mem); }

Problem::Problem(const char* format, ...) {
  char text[512];
  std::va_list arguments;
  va_start(arguments, format);
  if (expandText(text, sizeof text, format ? format : "", arguments) < 0) text[0] = '\0';
  va_end(arguments);
  msg_ = copyOfText(text);
}

Problem::Problem(const Problem& other) : msg_(other.msg_ ? copyOfText(other.msg_) : nullptr) {}

Problem& Problem::operator=(const Problem& other) {
  if (this == &other) return *this;
  char* copy = other.msg_ ? copyOfText(other.msg_) : nullptr;
  if (other.msg_ && !copy) return *this;
  Allocator::theAllocator()->free(msg_);
  msg_ = copy;
  return *this;
}

Problem::~Problem() { Allocator::theAllocator()->free(msg_); }

const char* Problem::msg() const { return msg_ ? msg_ : "out of memory for the message"; }

}  // namespace Utils
