// Command lines of zarn-img: options in the style of getopt_long, sizes with
// suffixes, and the -o list of disk options.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarn_img {

// A command line that can't mean anything: the tool prints the message with a
// hint to --help and exits with 2.
class CUsageError : public std::runtime_error {
 public:
  CUsageError(const std::string& command, const std::string& message)
      : std::runtime_error(message), command_(command) {}
  // The command whose help the hint points to; empty for the tool's own.
  const std::string& getCommand() const { return command_; }

 private:
  std::string command_;
};

struct COptionDef {
  char shortName;        // 0 for none
  const char* longName;  // the key under which the value is kept
  bool takesValue;
  bool repeatable;  // values of repeated uses are joined by commas (as -o)
};

// Parses the arguments behind the command name. Options may stand anywhere
// before "--"; short ones bundle ("-pn", "-j4"), long ones take their value
// after "=" or as the next argument. "-" alone is a positional argument.
// "-h" and "--help" set wantsHelp. Raises CUsageError on an unknown option, a
// missing value, or a value given to a flag.
class CArguments {
 public:
  CArguments(const std::string& command, const std::vector<COptionDef>& definitions,
             const std::vector<std::string>& args);

  bool wantsHelp() const { return wantsHelp_; }
  bool has(const std::string& longName) const { return values_.count(longName) != 0; }
  // The value of an option, or `fallback` when it wasn't given.
  std::string get(const std::string& longName, const std::string& fallback = std::string()) const;
  const std::vector<std::string>& positional() const { return positional_; }
  // Raises CUsageError unless there are between `min` and `max` positional
  // arguments; `names` is what they are called in the message ("SOURCE TARGET").
  void expectPositional(size_t min, size_t max, const std::string& names) const;
  const std::string& command() const { return command_; }

 private:
  const COptionDef* findLong(const std::string& name) const;
  const COptionDef* findShort(char name) const;
  void setValue(const COptionDef& definition, const std::string& value);

  std::string command_;
  std::vector<COptionDef> definitions_;
  std::map<std::string, std::string> values_;
  std::vector<std::string> positional_;
  bool wantsHelp_ = false;
};

// "123", "12b", "64K", "1.5G", "2T", "1P", "1E" (either case; powers of 1024)
// as bytes, as qemu-img reads them: a fraction needs a suffix above bytes and
// is rounded to the nearest byte. Raises CUsageError naming `what` on anything
// else, a negative value or one beyond 2^63 - 1.
int64_t parseSize(const std::string& command, const std::string& what, const std::string& text);
// A decimal count from `min` to `max`; CUsageError otherwise.
int64_t parseCount(const std::string& command, const std::string& what, const std::string& text, int64_t min,
                   int64_t max);

// The -o list of a new disk.
struct CDiskOptions {
  std::string subformat = "monolithicSparse";
  int64_t splitSize = -1;  // -1: one file (two GiB for twoGbMaxExtentSparse)
  int compressionLevel = -1;  // -1: not given, kDefaultCompressionLevel
  std::string backingFile;  // empty: no parent
  bool onDemand = false;
  // Unset: encrypted when the backing file is, else clear.
  std::optional<bool> encrypted;
  std::string confine;  // empty: the whole file system
  // Whether anything but confine was set: those only shape a new disk.
  bool setsCreation = false;

  bool isCompressed() const { return subformat == "streamOptimized"; }
  // Level 2 rather than the library's 1: it costs about half again the
  // processor time of level 1 and makes mixed data 0.7 % smaller, which keeps
  // a compressed disk no bigger than qemu-img's at its level 6 and still many
  // times faster.
  static constexpr int kDefaultCompressionLevel = 2;
  int getCompressionLevel() const { return compressionLevel >= 0 ? compressionLevel : kDefaultCompressionLevel; }
  // The fileSizeLimit argument of CVMDKDisk::create.
  int64_t getFileSizeLimit() const;
};

// Reads "key=value,key=value" into `options` (later keys win). Raises
// CUsageError on an unknown key, a bad value or a combination that makes no
// disk.
void parseDiskOptions(const std::string& command, const std::string& text, CDiskOptions& options);
// Whether the -o text asks for the list of keys ("help" or "?"), which
// getDiskOptionsHelp gives.
bool isDiskOptionsHelp(const std::string& text);
const char* getDiskOptionsHelp();

}  // namespace zarn_img
