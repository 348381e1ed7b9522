// Runs independent VMDK tools (qemu-img, qemu-io) as black-box peers.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

namespace test {

// Whether `path` names an executable program.
inline bool hasPeerTool(const char* path) { return ::access(path, X_OK) == 0; }

// Runs `command` through the shell with stderr merged into stdout; returns
// the exit status (-1 when the command couldn't run) and its output.
inline int runPeerTool(const std::string& command, std::string& output) {
  output.clear();
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return -1;
  std::array<char, 4096> chunk;
  size_t got;
  while ((got = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0) output.append(chunk.data(), got);
  const int status = ::pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Quotes `text` for the shell.
inline std::string shellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace test
