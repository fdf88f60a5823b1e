// SPDX-License-Identifier: MIT
// The requests of a program to valgrind, by its published binary interface.
//
// Not valgrind's own header, which defines several hundred macros and need not be installed: a
// request is a sequence of instructions that do nothing on a processor, and that valgrind
// recognises. Its arguments are six words in memory. Example, as 64-bit words: {0x1301, address,
// size, 0, 0, 0} announces a block from malloc. On processors that are not listed below there is no
// request, and valgrind is not recognised.
//
// Thread safety: may be called from any task.
#pragma once

#include <stdint.h>

namespace ysys {

enum class ValgrindRequest : uintptr_t {
  IS_RUNNING = 0x1001,
  BLOCK_IS_ALLOCATED = 0x1301,  // address, size, bytes of red zone, whether the memory is zeroed
  BLOCK_IS_FREED = 0x1302,      // address, bytes of red zone
  CHANGE_SILENCE = 0x1801,      // 1 more, or -1: errors are reported while the sum is 0
  // Of the memory checker: address, size.
  FORBID_ACCESS = 0x4d430000,
  MAKE_UNDEFINED = 0x4d430001,
  MAKE_DEFINED = 0x4d430002
};

// Returns 0 if the process does not run under valgrind.
inline uintptr_t askValgrind(ValgrindRequest request, uintptr_t first = 0, uintptr_t second = 0,
                             uintptr_t third = 0, uintptr_t fourth = 0) {
  const volatile uintptr_t words[6] = {
      static_cast<uintptr_t>(request), first, second, third, fourth, 0};
  uintptr_t answer = 0;
#if defined(__x86_64__)
  __asm__ volatile(
      "rolq $3, %%rdi\n\trolq $13, %%rdi\n\trolq $61, %%rdi\n\trolq $51, %%rdi\n\t"
      "xchgq %%rbx, %%rbx"
      : "+d"(answer)
      : "a"(&words[0])
      : "cc", "memory");
#elif defined(__i386__)
  __asm__ volatile(
      "roll $3, %%edi\n\troll $13, %%edi\n\troll $29, %%edi\n\troll $19, %%edi\n\t"
      "xchgl %%ebx, %%ebx"
      : "+d"(answer)
      : "a"(&words[0])
      : "cc", "memory");
#elif defined(__aarch64__)
  register uintptr_t result __asm__("x3") = answer;
  register const volatile uintptr_t* arguments __asm__("x4") = words;
  __asm__ volatile(
      "ror x12, x12, #3\n\tror x12, x12, #13\n\tror x12, x12, #51\n\tror x12, x12, #61\n\t"
      "orr x10, x10, x10"
      : "+r"(result)
      : "r"(arguments)
      : "cc", "memory", "x12");
  answer = result;
#else
  (void)words;
#endif
  return answer;
}

}  // namespace ysys
