// SPDX-License-Identifier: MIT
// The services beside the system interface: a debugger channel and a message on the screen.
//
// A message uses the first way that works: a dialog program, if there is a display; the controlling
// terminal, if the process is in its foreground; standard error. No state is kept between calls.
//
// The dialog programs are started without a shell, and get the text in a form that they show
// unchanged. Three take it as an argument. In two of these a backslash begins an escape, so each
// backslash is doubled: C:\new becomes C:\\new. One of these two cannot turn markup off, and
// searches for a tag in the first line that is not blank; it gets a first line with a zero-width
// space. The others read the text from standard input.
//
// A host that prevents a wait for its children (it ignores SIGCHLD, or waits for all of them
// itself) hides the exit status of the program; then the dialog counts as answered.
//
// Thread safety: may be called from any task.
#include "ysys/linux/posix.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "utils/sdk/platform.h"
#include "ysys/caller_state.h"
#include "ysys/linux/descriptor.h"
#include "ysys/stderr_report.h"

namespace ysys {
namespace {

constexpr int64_t QUICKEST_ANSWER_MS = 250;

// --- The debugger channel ---

// Returns the number of bytes that the channel took.
size_t writeToChannel(const char* path, const char* text, size_t length) {
  const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const int channel = open(path, flags, 0666);
  if (channel == -1) return 0;
  const size_t written = writeAll(channel, text, length, WhenFull::GIVE_UP);
  close(channel);
  return written;
}

// --- Dialogs ---

// The text with each backslash doubled, after a line that shows nothing, in pages of its own.
class EscapedText {
 public:
  explicit EscapedText(const char* text);
  ~EscapedText() {
    if (isWhole()) munmap(room_, size_);
  }
  EscapedText(const EscapedText&) = delete;
  EscapedText& operator=(const EscapedText&) = delete;

  bool isWhole() const { return room_ != MAP_FAILED; }
  char* afterFirstLine() const { return text() + sizeof FIRST_LINE - 1; }
  char* text() const { return static_cast<char*>(room_); }

 private:
  static constexpr char FIRST_LINE[] = "\u200b\n";

  size_t size_;
  void* room_;
};

EscapedText::EscapedText(const char* text)
    : size_(2 * strlen(text) + sizeof FIRST_LINE),
      room_(mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
  if (!isWhole()) return;
  char* to = stpcpy(this->text(), FIRST_LINE);
  for (; *text != '\0'; ++text) {
    if (*text == '\\') *to++ = '\\';
    *to++ = *text;
  }
  *to = '\0';
}

// An unnamed file with the text, for the standard input of a program.
class InputFile {
 public:
  explicit InputFile(const char* text) : file_(memfd_create("message", MFD_CLOEXEC)) {
    if (file_ != -1) writeAll(file_, text, strlen(text), WhenFull::WAIT);
  }
  ~InputFile() {
    if (file_ != -1) close(file_);
  }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  bool isOpen() const { return file_ != -1; }
  int rewound() const {
    lseek(file_, 0, SEEK_SET);
    return file_;
  }

 private:
  int file_;
};

// Returns the process id, -1 if the program could not be started.
pid_t start(char* const* arguments, int input) {
  sigset_t none, usual;
  sigemptyset(&none);
  sigemptyset(&usual);
  sigaddset(&usual, SIGCHLD);
  sigaddset(&usual, SIGPIPE);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &usual);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  pid_t process;
  if (posix_spawnp(&process, arguments[0], &actions, &attributes, arguments, environ) != 0)
    process = -1;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return process;
}

int64_t milliseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// A dialog that was closed and a dialog without a display both exit with a small status other than
// 0; one that exits too soon for a person was not seen.
bool wasAnswered(pid_t process) {
  const int64_t begun = milliseconds();
  int status = 0;
  pid_t ended;
  do {
    ended = waitpid(process, &status, 0);
  } while (ended == -1 && errno == EINTR);
  if (ended == -1) return true;
  if (!WIFEXITED(status) || WEXITSTATUS(status) == 126 || WEXITSTATUS(status) == 127) return false;
  return WEXITSTATUS(status) == 0 || milliseconds() - begun >= QUICKEST_ANSWER_MS;
}

bool askInDialog(const char* caption, const char* text) {
  const EscapedText escaped(text);
  const InputFile input(text);
  if (!escaped.isWhole() || !input.isOpen()) return false;
  const char* const programs[][10] = {
      {"zenity", "--info", "--no-markup", "--title", caption, "--text", text},
      {"kdialog", "--title", caption, "--msgbox", escaped.text()},
      {"yad", "--no-markup", "--title", caption, "--text", escaped.afterFirstLine(), "--button",
       "OK:0"},
      {"gxmessage", "-title", caption, "-file", "-"},
      {"xmessage", "-title", caption, "-file", "-"},
  };
  for (const auto& program : programs) {
    const pid_t process = start(const_cast<char* const*>(program), input.rewound());
    if (process != -1 && wasAnswered(process)) return true;
  }
  return false;
}

bool hasDisplay() {
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
    const char* display = getenv(name);
    if (display != nullptr && *display != '\0') return true;
  }
  return false;
}

// --- The terminal ---

void readLine(int terminal) {
  char byte = '\0';
  ssize_t count;
  do {
    count = read(terminal, &byte, 1);
  } while ((count == 1 && byte != '\n') || (count == -1 && errno == EINTR));
}

bool askOnTerminal(const char* caption, const char* text) {
  const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (terminal == -1) return false;
  const bool isOurs = tcgetpgrp(terminal) == getpgrp();
  if (isOurs) {
    for (const char* part : {caption, "\n\n", text, "\n\nPress Enter to go on. "}) {
      writeAll(terminal, part, strlen(part), WhenFull::WAIT);
    }
    readLine(terminal);
  }
  close(terminal);
  return isOurs;
}

}  // namespace
}  // namespace ysys

using namespace ysys;

void OutputDebugStringA(const char* text) noexcept {
  if (text == nullptr) return;
  const ErrnoSaver saver;
  const NoCancellation whole;
  const size_t length = strlen(text);
  const char* path = secure_getenv("YSYS_DEBUG_CHANNEL");
  const size_t written = path == nullptr ? 0 : writeToChannel(path, text, length);
  writeAll(STDERR_FILENO, text + written, length - written, WhenFull::WAIT);
}

int MessageBoxA(void*, const char* text, const char* caption, unsigned int) noexcept {
  const ErrnoSaver saver;
  const NoCancellation whole;
  if (text == nullptr) text = "";
  if (caption == nullptr) caption = "";
  if (hasDisplay() && askInDialog(caption, text)) return 1;
  if (!askOnTerminal(caption, text)) report({caption, ": ", text, "\n"});
  return 1;
}

int DisableThreadLibraryCalls(void*) noexcept { return 1; }
