// zarn-img: makes, converts, inspects and checks VMDK disks, in the manner of
// qemu-img, through the public interface of the zarn library.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "context.h"
#include "interrupt.h"
#include "kx/error.h"
#include "kx/log.h"

namespace {

using namespace zarn_img;

struct CCommand {
  const char* name;
  int (*run)(CToolContext&, const Args&);
  const char* summary;
};

const CCommand kCommands[] = {
    {"create", runCreate, "make a new disk, plain, split, compressed, encrypted or differencing"},
    {"convert", runConvert, "copy a disk or raw image into another layout"},
    {"write", runWrite, "write the bytes of a file or stdin into a disk"},
    {"info", runInfo, "show the layout and space use of a disk"},
    {"map", runMap, "list the allocated runs of a disk and where they come from"},
    {"check", runCheck, "read every grain of a disk and report damage"},
    {"rebase", runRebase, "change the parent reference of a differencing disk"},
    {"compare", runCompare, "tell whether two disks or images read the same"},
    {"measure", runMeasure, "tell how many bytes a conversion into a new disk needs"},
    {"commit", runCommit, "write the grains of a differencing disk into its parent"},
    {"resize", runResize, "grow a disk where its grain tables have room"},
};

void printHelp() {
  std::printf(
      "Usage: zarn-img COMMAND [OPTIONS] ARGUMENTS\n"
      "\n"
      "Makes, converts and inspects VMDK sparse disks (monolithicSparse,\n"
      "twoGbMaxExtentSparse, streamOptimized; encrypted and differencing).\n"
      "\n"
      "Commands:\n");
  for (const CCommand& command : kCommands) std::printf("  %-9s%s\n", command.name, command.summary);
  std::printf(
      "\n"
      "  zarn-img create  [-f vmdk] [-o OPTIONS] [-b BACKING_FILE [-F vmdk]] FILE [SIZE]\n"
      "  zarn-img convert [-U] [-f raw|vmdk] [-O raw|vmdk] [-o OPTIONS] [-p] [-j THREADS] [-n]\n"
      "                   SOURCE TARGET\n"
      "  zarn-img write   [--offset BYTES] FILE INPUT\n"
      "  zarn-img info    [-U] [--backing-chain] [--output=human|json] FILE\n"
      "  zarn-img map     [-U] [--output=human|json] FILE\n"
      "  zarn-img check   [-U] [--output=human|json] FILE\n"
      "  zarn-img rebase  -b PARENT_REFERENCE FILE\n"
      "  zarn-img compare [-U] [-f raw|vmdk] [-F raw|vmdk] FILE1 FILE2\n"
      "  zarn-img measure [--output=human|json] [-O raw|vmdk] [-o OPTIONS]\n"
      "                   (--size SIZE | [-U] [-f raw|vmdk] FILE)\n"
      "  zarn-img commit  [-p] FILE\n"
      "  zarn-img resize  FILE [+]SIZE\n"
      "\n"
      "Every command takes --password-file F, --confine DIR and -q (quiet), and\n"
      "'zarn-img COMMAND --help' tells more. SIZE takes the suffixes K, M, G, T,\n"
      "P, E (powers of 1024) and fractions with them (1.5G).\n"
      "Exit status: 0 success, 1 error (info: also a disk whose parent chain is\n"
      "broken), 2 bad usage (check: 2 damage found, 1 the disk doesn't open;\n"
      "compare: 0 the same, 1 different, 2 error), 128 + signal when interrupted.\n"
      "\n"
      "PASSWORDS: an encrypted disk takes its password from the file that\n"
      "--password-file names (all of it but a final line end), else from the\n"
      "environment variable ZARN_PASSWORD, else from a prompt on the terminal\n"
      "without echo; never from an argument. One password serves a whole run:\n"
      "source, target and every parent.\n"
      "\n"
      "An error is one line on stderr. ZARN_IMG_DEBUG=1 in the environment adds\n"
      "the library's own log lines, such as what failed after the first error.\n");
}

// The user sees one line for a failure: the first error. What the library
// logs besides warnings, such as the destructors that fail one after another
// once a write failed, goes to debug lines that ZARN_IMG_DEBUG=1 shows.
bool gDebug = false;
// The first destructor whose flush failed. Without an error in main, that is
// the only sign of a lost write, and it turns success into failure.
std::mutex gLostWriteMutex;
std::string gLostWrite;
// Names files in log lines as the user typed them, once there is a command.
const CToolContext* gContext = nullptr;

std::string describeForUser(const std::exception& error) {
  return gContext ? gContext->describe(error) : describeError(error);
}

void logToStderr(kx::LogLevel level, const kx::String& text, const std::exception* error) {
  std::string line = text.toUTF8();
  if (error) line += ": " + describeForUser(*error);
  if (level == kx::LogLevel::Warning) {
    std::fprintf(stderr, "zarn-img: warning: %s\n", line.c_str());
    return;
  }
  if (level == kx::LogLevel::Error && text.StartsWith("Exception in destructor")) {
    std::lock_guard<std::mutex> lock(gLostWriteMutex);
    if (gLostWrite.empty()) gLostWrite = error ? describeForUser(*error) : line;
  }
  if (gDebug) std::fprintf(stderr, "zarn-img: debug: %s\n", line.c_str());
}

int usageError(const std::string& command, const std::string& message) {
  std::fprintf(stderr, "zarn-img: %s\nTry 'zarn-img %s--help' for more information.\n", message.c_str(),
               command.empty() ? "" : (command + " ").c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  // Before anything can open a file: a signal from now on stops the work at
  // a grain border.
  installInterruptHandlers();
  const char* debug = std::getenv("ZARN_IMG_DEBUG");
  gDebug = debug && *debug && std::strcmp(debug, "0") != 0;
  kx::setLogSink(logToStderr);
  const std::vector<std::string> all(argv + 1, argv + argc);
  if (all.empty()) return usageError("", "missing command");
  const std::string& name = all[0];
  if (name == "--help" || name == "-h" || name == "help") {
    printHelp();
    return 0;
  }
  if (name == "--version" || name == "-V") {
    std::printf("zarn-img %s\n", ZARN_IMG_VERSION);
    return 0;
  }
  const CCommand* command = nullptr;
  for (const CCommand& candidate : kCommands) {
    if (name == candidate.name) command = &candidate;
  }
  if (!command) {
    std::fprintf(stderr, "zarn-img: unknown command '%s'; see zarn-img --help\n", name.c_str());
    return 2;
  }
  int status;
  CToolContext context;
  gContext = &context;
  try {
    status = command->run(context, Args(all.begin() + 1, all.end()));
  } catch (const CUsageError& error) {
    return usageError(error.getCommand(), error.what());
  } catch (const CInterrupted& error) {
    std::fprintf(stderr, "zarn-img: %s\n", error.what());
    return 128 + error.getSignal();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zarn-img: %s\n", context.describe(error).c_str());
    return 1;
  }
  std::lock_guard<std::mutex> lock(gLostWriteMutex);
  if (!gLostWrite.empty()) {
    std::fprintf(stderr, "zarn-img: %s\n", gLostWrite.c_str());
    return 1;
  }
  return status;
}
