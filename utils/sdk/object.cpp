// object.cpp: what object.h leaves to the library: allocation of objects, and messages.
#include "utils/sdk/object.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "utils/sdk/allocator.h"

namespace Utils {

Object::~Object() {}

void* Object::operator new(std::size_t size) noexcept { return ::operator new(size, std::nothrow); }

void Object::operator delete(void* mem) noexcept { ::operator delete(mem); }

namespace {

// A copy of the text in a block of exactly its size, or null.
char* copyOf(const char* text) {
  const std::size_t bytes = std::strlen(text) + 1;
  void* block = ::operator new(bytes, std::nothrow);
  return block ? static_cast<char*>(std::memcpy(block, text, bytes)) : nullptr;
}

}  // namespace

Problem::Problem(const char* format, ...) {
  char text[512];
  std::va_list arguments;
  va_start(arguments, format);
  if (std::vsnprintf(text, sizeof text, format, arguments) < 0) text[0] = '\0';
  va_end(arguments);
  msg_ = copyOf(text);
}

Problem::Problem(const Problem& other) : msg_(other.msg_ ? copyOf(other.msg_) : nullptr) {}

Problem& Problem::operator=(const Problem& other) {
  if (this == &other) return *this;
  char* copy = other.msg_ ? copyOf(other.msg_) : nullptr;
  if (other.msg_ && !copy) return *this;
  ::operator delete(msg_);
  msg_ = copy;
  return *this;
}

Problem::~Problem() { ::operator delete(msg_); }

const char* Problem::msg() const { return msg_ ? msg_ : "out of memory for the message"; }

}  // namespace Utils
