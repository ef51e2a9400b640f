#include "FSStandardOutput.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

namespace {

[[noreturn]] void end() {
  FSStandardOutput::EndWithReader();
  std::raise(SIGPIPE);
  std::abort();  // it does end the process
}

// Waits for so many milliseconds, or for good when negative, until it can be written to. False when
// nobody can ever read it.
bool canBeRead(int milliseconds) {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  poll(&output, 1, milliseconds);
  return (output.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0;
}

}  // namespace

void FSStandardOutput::EndWithReader() {
  std::signal(SIGPIPE, SIG_DFL);
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
}

void FSStandardOutput::EndIfUnread() {
  if (!canBeRead(0)) end();
}

size_t FSStandardOutput::Write(std::string_view text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = write(STDOUT_FILENO, text.data() + written, text.size() - written);
    if (count >= 0) {
      written += static_cast<size_t>(count);
    } else if (const bool isFull = errno == EAGAIN || errno == EWOULDBLOCK; errno != EINTR) {
      if (errno == EBADF || !canBeRead(isFull ? -1 : 0)) end();
      if (!isFull) break;
    }
  }
  return written;
}

void FSStandardOutput::WriteAll(std::string_view text) {
  while (true) {
    text.remove_prefix(Write(text));
    if (text.empty()) return;
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}
