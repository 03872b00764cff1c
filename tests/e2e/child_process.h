#pragma once

// A program run as a separate process, its standard output and error captured
// in files. The destructor kills it if still running, so a failed assertion
// never leaves a process holding port 6868.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

class ChildProcess {
 public:
  explicit ChildProcess(std::vector<std::string> argv) {
    pid_ = ::fork();
    if (pid_ != 0) return;
    if (!std::freopen(out_.c_str(), "w", stdout) || !std::freopen(err_.c_str(), "w", stderr)) {
      ::_exit(126);
    }
    std::vector<char*> args;
    for (std::string& a : argv) args.push_back(&a[0]);
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ~ChildProcess() {
    if (running()) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status_, 0);
    }
    ::unlink(out_.c_str());
    ::unlink(err_.c_str());
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool running() {
    if (!exited_ && ::waitpid(pid_, &status_, WNOHANG) == pid_) exited_ = true;
    return !exited_;
  }
  void Signal(int sig) {
    if (running()) ::kill(pid_, sig);
  }
  bool Wait(double seconds) {
    return Until([this] { return !running(); }, seconds);
  }
  bool WaitForOutput(const std::string& needle, double seconds) {
    return Until([&] { return Out().find(needle) != std::string::npos; }, seconds);
  }
  // Ended by exit() with `code`, not by a signal.
  bool ExitedWith(int code) const {
    return exited_ && WIFEXITED(status_) && WEXITSTATUS(status_) == code;
  }
  int status() const { return status_; }
  std::string Out() const { return Read(out_); }
  std::string Err() const { return Read(err_); }

 private:
  template <class Done>
  static bool Until(Done done, double seconds) {
    for (int ms = 0; !done(); ms += 10) {
      if (ms >= seconds * 1000) return false;
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
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
  }

  std::string out_ = TempFile();
  std::string err_ = TempFile();
  pid_t pid_ = -1;
  int status_ = 0;
  bool exited_ = false;
};
