// test::CChildProcess: a program run the way a user runs it, with its
// stdout and stderr kept apart and its end told apart: an exit status, or
// the signal that killed it.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace test {

struct CProcessEnd {
  int exitStatus = -1;  // -1 when a signal ended it
  int signal = 0;       // the signal that ended it, else 0
  std::string out;
  std::string err;

  // The lines of stderr, each without its line end.
  std::vector<std::string> errLines() const {
    std::vector<std::string> lines;
    for (size_t start = 0; start < err.size();) {
      size_t end = err.find('\n', start);
      if (end == std::string::npos) end = err.size();
      lines.push_back(err.substr(start, end - start));
      start = end + 1;
    }
    return lines;
  }
};

class CChildProcess {
 public:
  // Starts `argv` in `folder`, with `env` ("NAME=value") added to this
  // process's environment. stdin is /dev/null, or `stdinFd` when given (the
  // child gets its own copy). Raises std::runtime_error when it can't start.
  CChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& folder,
                int stdinFd = -1)
      : outPath_(makeTempFile()), errPath_(makeTempFile()) {
    std::vector<std::string> environment(env);
    for (char** entry = environ; *entry; ++entry) environment.push_back(*entry);
    std::vector<char*> args, envp;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    for (const std::string& entry : environment) envp.push_back(const_cast<char*>(entry.c_str()));
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdinFd >= 0) {
      posix_spawn_file_actions_adddup2(&actions, stdinFd, STDIN_FILENO);
    } else {
      posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath_.c_str(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath_.c_str(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    const int failed = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
      cleanUp();
      throw std::runtime_error("cannot start " + argv[0]);
    }
  }
  ~CChildProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      int status;
      ::waitpid(pid_, &status, 0);
    }
    cleanUp();
  }
  CChildProcess(const CChildProcess&) = delete;
  CChildProcess& operator=(const CChildProcess&) = delete;

  pid_t getPid() const { return pid_; }
  void sendSignal(int signal) { ::kill(pid_, signal); }

  // Waits for the end; call once.
  CProcessEnd wait() {
    CProcessEnd end;
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0) {
    }
    pid_ = -1;
    if (WIFEXITED(status)) end.exitStatus = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) end.signal = WTERMSIG(status);
    end.out = readAll(outPath_);
    end.err = readAll(errPath_);
    return end;
  }

  // Runs to the end.
  static CProcessEnd run(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                         const std::string& folder) {
    return CChildProcess(argv, env, folder).wait();
  }

 private:
  static std::string makeTempFile() {
    std::string pattern = "/tmp/zarn-child-XXXXXX";
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    ::close(fd);
    return pattern;
  }
  static std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  void cleanUp() {
    ::unlink(outPath_.c_str());
    ::unlink(errPath_.c_str());
  }

  std::string outPath_;
  std::string errPath_;
  pid_t pid_ = -1;
};

}  // namespace test
