#pragma once

// A program run as a separate process for a test, its standard output and
// error captured in files. The destructor kills it if it is still running, so
// a failed assertion never leaves a process holding port 6868.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& argv) {
    out_path_ = TempFile();
    err_path_ = TempFile();
    pid_ = ::fork();
    if (pid_ == 0) {
      if (!std::freopen(out_path_.c_str(), "w", stdout) ||
          !std::freopen(err_path_.c_str(), "w", stderr)) {
        ::_exit(126);
      }
      std::vector<char*> args;
      for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      ::execv(args[0], args.data());
      ::_exit(127);
    }
  }

  ~ChildProcess() {
    if (running()) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status_, 0);
    }
    ::unlink(out_path_.c_str());
    ::unlink(err_path_.c_str());
  }

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }

  bool running() {
    if (pid_ <= 0 || exited_) return false;
    if (::waitpid(pid_, &status_, WNOHANG) == pid_) exited_ = true;
    return !exited_;
  }

  // Waits up to `seconds` for the process to end; false if it is still running.
  bool Wait(double seconds) {
    return Until([this] { return !running(); }, seconds);
  }

  // Waits up to `seconds` until the standard output contains `needle`.
  bool WaitForOutput(const std::string& needle, double seconds) {
    return Until([&] { return Out().find(needle) != std::string::npos; }, seconds);
  }

  void Signal(int sig) {
    if (running()) ::kill(pid_, sig);
  }

  // True when the process ended by exit() (not by a signal) with `code`.
  bool ExitedWith(int code) const {
    return exited_ && WIFEXITED(status_) && WEXITSTATUS(status_) == code;
  }
  int status() const { return status_; }

  std::string Out() const { return Read(out_path_); }
  std::string Err() const { return Read(err_path_); }

 private:
  template <class Done>
  static bool Until(Done done, double seconds) {
    auto deadline = std::chrono::steady_clock::now() +
                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                        std::chrono::duration<double>(seconds));
    while (!done()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
  }

  static std::string TempFile() {
    char name[] = "/tmp/tarn-e2e-XXXXXX";
    int fd = ::mkstemp(name);
    if (fd >= 0) ::close(fd);
    return name;
  }

  static std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
  }

  pid_t pid_ = -1;
  int status_ = 0;
  bool exited_ = false;
  std::string out_path_;
  std::string err_path_;
};
