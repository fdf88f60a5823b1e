// SPDX-License-Identifier: MIT
// A text of which three have more than INT_MAX characters, all 'x', in 2 MiB of
// memory.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <string>

// One piece of memory, mapped again and again, to the end of the process; null where the address
// space has no room.
inline const char* hugeText() {
  constexpr std::size_t PIECE = std::size_t{1} << 21, SIZE = (std::size_t{3} << 28) + PIECE;
  const int file = memfd_create("text", 0);
  const bool written = write(file, std::string(PIECE, 'x').data(), PIECE) == ssize_t{PIECE};
  void* room = mmap(nullptr, SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (!written || room == MAP_FAILED) return nullptr;
  char* const text = static_cast<char*>(room);
  for (std::size_t at = 0; at < SIZE; at += PIECE)
    mmap(text + at, PIECE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED, file, 0);
  text[SIZE - 1] = '\0';
  close(file);
  return text;
}
