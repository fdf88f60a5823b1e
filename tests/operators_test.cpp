// SPDX-License-Identifier: MIT
// A program with global operators of its own, linked with the library: neither uses the other's.
#include <cstdlib>
#include <new>

#include "gtest/gtest.h"
#include "utils/sdk/alloc.h"
#include "utils/sdk/object.h"

namespace {

int _news = 0;
int _deletes = 0;

void* counted(std::size_t size) {
  _news++;
  return std::malloc(size);
}

void uncounted(void* mem) {
  _deletes++;
  std::free(mem);
}

}  // namespace

void* operator new(std::size_t size) { return counted(size); }
void* operator new[](std::size_t size) { return counted(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return counted(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return counted(size); }
void operator delete(void* mem) noexcept { uncounted(mem); }
void operator delete[](void* mem) noexcept { uncounted(mem); }
void operator delete(void* mem, std::size_t) noexcept { uncounted(mem); }
void operator delete[](void* mem, std::size_t) noexcept { uncounted(mem); }
void operator delete(void* mem, const std::nothrow_t&) noexcept { uncounted(mem); }
void operator delete[](void* mem, const std::nothrow_t&) noexcept { uncounted(mem); }

namespace {

struct Mine : Utils::Object {
  int value_ = 3;
};

TEST(GlobalOperators, TheProgramKeepsItsOwn) {
  Utils::Allocator* allocator = Utils::Allocator::theAllocator();
  const unsigned before = allocator->allocatedMemory();
  const int news = _news;
  int* volatile number = new int(5);
  char* volatile text = new char[10];
  EXPECT_EQ(_news, news + 2);
  EXPECT_EQ(allocator->allocatedMemory(), before);
  delete number;
  delete[] text;
}

TEST(GlobalOperators, TheLibraryUsesNoneOfThem) {
  Utils::Allocator* allocator = Utils::Allocator::theAllocator();
  const unsigned before = allocator->allocatedMemory();
  const int news = _news;
  const int deletes = _deletes;
  const bool served = [&] {
    const Utils::Problem problem("%d", 4);
    const Utils::Ref<Mine> object(new Mine);
    Utils::Object* base = new Mine;
    auto* arena = new Utils::MemoryAllocator(allocator);
    const bool all = allocator->allocatedMemory() > before + 3 * 32;
    delete base;
    delete arena;
    return all;
  }();
  EXPECT_EQ(_news, news);
  EXPECT_EQ(_deletes, deletes);
  EXPECT_TRUE(served);
  EXPECT_EQ(allocator->allocatedMemory(), before);
}

}  // namespace
