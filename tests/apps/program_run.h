// Running the programs as their users do.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

// Generous, for a loaded machine under a sanitizer; nothing waits for it when all is well.
inline constexpr std::chrono::seconds kPatience{60};

// A run of a program with its three streams in our hands, in a session of its own: standard input
// and output are pipes, or one terminal.
class ProgramRun {
 public:
  // The environment is ours without ORVEX_ROOT, and with the variables given ("NAME=value").
  ProgramRun(const char* program, const std::vector<std::string>& arguments,
             const std::filesystem::path& folder, bool terminal,
             const std::vector<std::string>& environment) {
    int in[2] = {-1, -1}, out[2], err[2];
    EXPECT_EQ(::pipe2(err, O_CLOEXEC), 0);
    if (terminal) {
      EXPECT_EQ(::openpty(&m_in, &in[0], nullptr, nullptr, nullptr), 0);
      m_out = ::dup(m_in);
      out[1] = ::dup(in[0]);
    } else {
      EXPECT_EQ(::pipe2(in, O_CLOEXEC), 0);
      EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
      m_in = in[1];
      m_out = out[0];
    }
    m_err = err[0];
    std::vector<std::string> words = {program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    m_pid = ::fork();
    if (m_pid == 0) {
      ::setsid();
      ::dup2(in[0], STDIN_FILENO);
      ::dup2(out[1], STDOUT_FILENO);
      ::dup2(err[1], STDERR_FILENO);
      if (terminal) ::ioctl(STDIN_FILENO, TIOCSCTTY, 0);
      for (int fd = 3; fd < 64; ++fd) ::close(fd);
      ::unsetenv("ORVEX_ROOT");
      ::setenv("TERM", "xterm", 1);
      for (const std::string& variable : environment) ::putenv(const_cast<char*>(variable.c_str()));
      ::signal(SIGINT, SIG_DFL);
      if (::chdir(folder.c_str()) == 0) ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
  }
  ~ProgramRun() {
    if (m_pid > 0 && !m_ended) ::kill(m_pid, SIGKILL);
    Wait();
    for (const int fd : {m_in, m_out, m_err}) {
      if (fd >= 0) ::close(fd);
    }
  }

  void Type(const std::string& text) {
    EXPECT_EQ(::write(m_in, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void EndInput() {
    ::close(m_in);
    m_in = -1;
  }
  void CloseOutput() {
    ::close(m_out);
    m_out = -1;
  }
  void Signal(int signal) { ::kill(m_pid, signal); }

  // Read until standard output, or standard error, holds the text, counted from where the last call
  // stopped.
  bool Expect(const std::string& text) { return ExpectIn(out, &m_seen, text); }
  bool ExpectError(const std::string& text) { return ExpectIn(err, &m_error_seen, text); }

  // Waits until standard error, which nobody reads meanwhile, is as good as full.
  bool ExpectErrorFull() {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    const int capacity = ::fcntl(m_err, F_GETPIPE_SZ);
    int waiting = 0;
    while (std::chrono::steady_clock::now() < deadline && waiting < capacity / 16 * 15) {
      if (::ioctl(m_err, FIONREAD, &waiting) != 0) return false;
      std::this_thread::yield();
    }
    return waiting >= capacity / 16 * 15;
  }
  // Waits until the program has ended, without reading what it prints.
  bool EndsUnread() {
    pollfd process = {static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0)), POLLIN, 0};
    constexpr std::chrono::milliseconds kMost = kPatience;
    const bool ended = ::poll(&process, 1, static_cast<int>(kMost.count())) == 1;
    ::close(process.fd);
    return ended;
  }

  // Reads both streams to their ends. The exit status, or 1000 + the signal that ended it.
  int Finish() {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (ReadSome(deadline)) {
    }
    if (m_out >= 0 || m_err >= 0) ::kill(m_pid, SIGKILL);
    Wait();
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : 1000 + WTERMSIG(m_status);
  }

  pid_t pid() const { return m_pid; }

  std::string out, err;

 private:
  bool ExpectIn(const std::string& stream, size_t* seen, const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
      const size_t found = stream.find(text, *seen);
      if (found != std::string::npos) {
        *seen = found + text.size();
        return true;
      }
      if (!ReadSome(deadline)) break;
    }
    ADD_FAILURE() << "no '" << text << "' in:\n" << out << "\nerrors:\n" << err;
    return false;
  }
  bool ReadSome(std::chrono::steady_clock::time_point deadline) {
    if (m_out < 0 && m_err < 0) return false;
    pollfd streams[] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || ::poll(streams, 2, static_cast<int>(left.count())) <= 0) return false;
    ReadFrom(streams[0], &m_out, &out);
    ReadFrom(streams[1], &m_err, &err);
    return true;
  }
  static void ReadFrom(const pollfd& stream, int* fd, std::string* to) {
    if (*fd < 0 || stream.revents == 0) return;
    char block[4096];
    const ssize_t n = ::read(*fd, block, sizeof(block));
    if (n > 0) {
      to->append(block, static_cast<size_t>(n));
    } else {  // a terminal ends with EIO
      ::close(*fd);
      *fd = -1;
    }
  }
  void Wait() {
    if (m_ended) return;
    ::waitpid(m_pid, &m_status, 0);
    m_ended = true;
  }

  pid_t m_pid = -1;
  int m_in = -1, m_out = -1, m_err = -1;
  int m_status = 0;
  bool m_ended = false;
  size_t m_seen = 0, m_error_seen = 0;
};
