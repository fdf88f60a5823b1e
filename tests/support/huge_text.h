// huge_text.h: a text of which three have more than INT_MAX characters, all 'x', in 2 MiB of
// memory.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <string>

// One piece of memory, mapped again and again.
class HugeText {
 public:
  HugeText() {
    const int file = memfd_create("text", 0);
    const std::string piece(PIECE, 'x');
    void* room = mmap(nullptr, SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (room == MAP_FAILED || write(file, piece.data(), PIECE) != ssize_t{PIECE}) return;
    text_ = static_cast<char*>(room);
    for (std::size_t at = 0; at < SIZE; at += PIECE)
      mmap(text_ + at, PIECE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED, file, 0);
    text_[SIZE - 1] = '\0';
    close(file);
  }
  ~HugeText() {
    if (text_) munmap(text_, SIZE);
  }
  HugeText(const HugeText&) = delete;
  HugeText& operator=(const HugeText&) = delete;

  const char* get() const { return text_; }  // null where the address space has no room

 private:
  static constexpr std::size_t PIECE = std::size_t{1} << 21;
  static constexpr std::size_t SIZE = (std::size_t{3} << 28) + PIECE;

  char* text_ = nullptr;
};
