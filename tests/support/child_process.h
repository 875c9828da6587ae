// A program run as a child process the way a shell user or a script would
// run it: its arguments, an environment of its own, and what it printed.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace tarn::testing {

struct Result {
  int code = -1;  // exit status, or 128 + signal when a signal ended it
  std::string out;
  std::string err;
};

// A running program. Collects its standard output, and its standard error
// unless `capture_err` is false (then it goes where the test's own goes),
// until it exits. `env` adds to or replaces the test's environment. The
// kernel kills the program when the thread that started it ends, so a test
// killed by ctest's timeout leaves no server behind holding ctest's output
// pipe open.
class ChildProcess {
 public:
  ChildProcess(std::vector<std::string> words, const std::map<std::string, std::string> &env = {},
               bool capture_err = true) {
    std::vector<std::string> vars;
    for (char **e = environ; *e != nullptr; ++e) {
      const std::string var = *e;
      if (env.count(var.substr(0, var.find('='))) == 0) vars.push_back(var);
    }
    for (const auto &[key, value] : env) vars.push_back(key + "=" + value);
    std::vector<char *> argv, envp;
    for (auto &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    for (auto &v : vars) envp.push_back(v.data());
    envp.push_back(nullptr);

    int out[2], err[2] = {-1, -1};
    if (::pipe2(out, O_CLOEXEC) != 0 || (capture_err && ::pipe2(err, O_CLOEXEC) != 0))
      throw std::runtime_error("pipe");
    Spawn(argv, envp, out[1], err[1]);
    ::close(out[1]);
    if (capture_err) ::close(err[1]);
    out_fd_ = out[0];
    err_fd_ = err[0];
    if (pid_ < 0) throw std::runtime_error("cannot start " + words[0] + ": fork failed");
  }
  ~ChildProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      Wait();
    }
  }
  ChildProcess(const ChildProcess &) = delete;
  ChildProcess &operator=(const ChildProcess &) = delete;

  void Signal(int sig) { ::kill(pid_, sig); }

  // Reads what arrives within `timeout_ms`.
  const Result &Poll(int timeout_ms = 0) {
    Drain(timeout_ms);
    return result_;
  }
  // Until the program closes its standard output.
  bool Running() const { return out_fd_ >= 0; }

  // Waits until the program exits, killing it after `limit`.
  Result Wait(std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (out_fd_ >= 0 || err_fd_ >= 0) {
      if (std::chrono::steady_clock::now() > deadline) ::kill(pid_, SIGKILL);
      Drain(200);
    }
    int status = 0;
    if (pid_ > 0 && ::waitpid(pid_, &status, 0) == pid_)
      result_.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    pid_ = -1;
    return result_;
  }

 private:
  // posix_spawn cannot ask for a parent-death signal, so fork and exec; the
  // child only makes async-signal-safe calls. A parent that died before
  // prctl took effect has already re-parented us: then there is no one to
  // serve and the child ends at once.
  void Spawn(std::vector<char *> &argv, std::vector<char *> &envp, int out_w, int err_w) {
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ != 0) return;
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) ::_exit(127);
    const int devnull = ::open("/dev/null", O_RDONLY);
    if (devnull < 0 || ::dup2(devnull, STDIN_FILENO) < 0 || ::dup2(out_w, STDOUT_FILENO) < 0 ||
        (err_w >= 0 && ::dup2(err_w, STDERR_FILENO) < 0))
      ::_exit(127);
    // The test has blocked or ignored signals of its own; the program starts clean.
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }

  void Drain(int timeout_ms) {
    pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
    if (::poll(fds, 2, timeout_ms) <= 0) return;
    ReadFrom(fds[0], out_fd_, result_.out);
    ReadFrom(fds[1], err_fd_, result_.err);
  }
  static void ReadFrom(const pollfd &p, int &fd, std::string &into) {
    if (fd < 0 || (p.revents & (POLLIN | POLLHUP | POLLERR)) == 0) return;
    char buffer[65536];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      into.append(buffer, static_cast<size_t>(n));
    } else {
      ::close(fd);
      fd = -1;
    }
  }

  pid_t pid_ = -1;
  int out_fd_ = -1, err_fd_ = -1;
  Result result_;
};

}  // namespace tarn::testing
