// zarn-img: makes, converts, inspects and checks VMDK disks, in the manner of
// qemu-img, through the public interface of the zarn library.
#include <cstdio>
#include <cstring>
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
      "  zarn-img create  [-o OPTIONS] FILE SIZE\n"
      "  zarn-img convert [-f raw|vmdk] [-O raw|vmdk] [-o OPTIONS] [-p] [-j THREADS] [-n] SOURCE TARGET\n"
      "  zarn-img write   [--offset BYTES] FILE INPUT\n"
      "  zarn-img info    [--output=human|json] FILE\n"
      "  zarn-img map     [--output=human|json] FILE\n"
      "  zarn-img check   FILE\n"
      "  zarn-img rebase  -b PARENT_REFERENCE FILE\n"
      "\n"
      "Every command takes --password-file F and --confine DIR; 'zarn-img COMMAND\n"
      "--help' tells more. SIZE takes the suffixes K, M, G, T (powers of 1024).\n"
      "Exit status: 0 success, 1 error, 2 bad usage (check: 2 damage found),\n"
      "128 + signal when interrupted.\n");
}

std::string describe(const kx::CError& error) {
  std::string text = error.getMessage().toUTF8();
  if (!error.getProps().isEmpty()) text += " (" + error.getProps().toString().toUTF8() + ")";
  return text;
}

// Lines that the library logs reach the user as warnings. Its error lines are
// dropped, since the same errors come up to main as exceptions, except the
// ones of a destructor whose flush failed: those are the only sign of a lost
// write, and they turn success into failure.
bool gLostWrite = false;

void logToStderr(kx::LogLevel level, const kx::String& text, const std::exception* error) {
  const bool destructor = level == kx::LogLevel::Error && text.StartsWith("Exception in destructor");
  if (level == kx::LogLevel::Info || (level == kx::LogLevel::Error && !destructor)) return;
  if (destructor) gLostWrite = true;
  const auto* kxError = dynamic_cast<const kx::CError*>(error);
  std::fprintf(stderr, "zarn-img: %s%s%s%s\n", destructor ? "" : "warning: ", text.toUTF8().c_str(),
               error ? ": " : "", kxError ? describe(*kxError).c_str() : error ? error->what() : "");
}

int usageError(const std::string& command, const std::string& message) {
  std::fprintf(stderr, "zarn-img: %s\nTry 'zarn-img %s--help' for more information.\n", message.c_str(),
               command.empty() ? "" : (command + " ").c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  kx::setLogSink(logToStderr);
  installInterruptHandlers();
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
  if (!command) return usageError("", "unknown command '" + name + "'");
  int status;
  try {
    CToolContext context;
    status = command->run(context, Args(all.begin() + 1, all.end()));
  } catch (const CUsageError& error) {
    return usageError(error.getCommand(), error.what());
  } catch (const CInterrupted& error) {
    std::fprintf(stderr, "zarn-img: interrupted; what was written so far is flushed\n");
    return 128 + error.getSignal();
  } catch (const kx::CError& error) {
    std::fprintf(stderr, "zarn-img: %s\n", describe(error).c_str());
    return 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zarn-img: %s\n", error.what());
    return 1;
  }
  return gLostWrite ? 1 : status;
}
