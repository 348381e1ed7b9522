#include "arguments.h"

#include <cctype>
#include <limits>

namespace zarn_img {

CArguments::CArguments(const std::string& command, const std::vector<COptionDef>& definitions,
                       const std::vector<std::string>& args)
    : command_(command), definitions_(definitions) {
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (optionsEnded || arg == "-" || arg.empty() || arg[0] != '-') {
      positional_.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    if (arg[1] == '-') {
      const size_t eq = arg.find('=');
      const std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
      if (name == "help") {
        wantsHelp_ = true;
        continue;
      }
      const COptionDef* definition = findLong(name);
      if (!definition) throw CUsageError(command_, "unrecognized option '--" + name + "'");
      if (!definition->takesValue) {
        if (eq != std::string::npos) throw CUsageError(command_, "option '--" + name + "' doesn't allow an argument");
        setValue(*definition, std::string());
      } else if (eq != std::string::npos) {
        setValue(*definition, arg.substr(eq + 1));
      } else {
        if (i + 1 >= args.size()) throw CUsageError(command_, "option '--" + name + "' requires an argument");
        setValue(*definition, args[++i]);
      }
      continue;
    }
    for (size_t k = 1; k < arg.size(); ++k) {
      if (arg[k] == 'h') {
        wantsHelp_ = true;
        continue;
      }
      const COptionDef* definition = findShort(arg[k]);
      if (!definition) throw CUsageError(command_, std::string("invalid option -- '") + arg[k] + "'");
      if (!definition->takesValue) {
        setValue(*definition, std::string());
        continue;
      }
      if (k + 1 < arg.size()) {
        setValue(*definition, arg.substr(k + 1));
      } else {
        if (i + 1 >= args.size()) throw CUsageError(command_, std::string("option requires an argument -- '") + arg[k] + "'");
        setValue(*definition, args[++i]);
      }
      break;
    }
  }
}

const COptionDef* CArguments::findLong(const std::string& name) const {
  for (const COptionDef& definition : definitions_) {
    if (name == definition.longName) return &definition;
  }
  return nullptr;
}

const COptionDef* CArguments::findShort(char name) const {
  for (const COptionDef& definition : definitions_) {
    if (definition.shortName != 0 && definition.shortName == name) return &definition;
  }
  return nullptr;
}

void CArguments::setValue(const COptionDef& definition, const std::string& value) {
  auto it = values_.find(definition.longName);
  if (it != values_.end() && definition.repeatable && !value.empty()) {
    it->second += "," + value;
  } else {
    values_[definition.longName] = value;
  }
}

std::string CArguments::get(const std::string& longName, const std::string& fallback) const {
  auto it = values_.find(longName);
  return it == values_.end() ? fallback : it->second;
}

void CArguments::expectPositional(size_t min, size_t max, const std::string& names) const {
  if (positional_.size() < min) throw CUsageError(command_, "expecting " + names);
  if (positional_.size() > max) throw CUsageError(command_, "unexpected argument '" + positional_[max] + "'");
}

int64_t parseSize(const std::string& command, const std::string& what, const std::string& text) {
  const std::string bad =
      "invalid " + what + " '" + text + "': expecting bytes, or a number with K, M, G, T, P or E (1.5G)";
  size_t at = 0;
  while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
  const size_t wholeStart = at;
  while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
  const std::string whole = text.substr(wholeStart, at - wholeStart);
  std::string fraction;
  const bool hasPoint = at < text.size() && text[at] == '.';
  if (hasPoint) {
    const size_t fractionStart = ++at;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
    fraction = text.substr(fractionStart, at - fractionStart);
  }
  int shift = 0;
  if (at + 1 == text.size()) {
    switch (std::toupper(static_cast<unsigned char>(text[at]))) {
      case 'B': shift = 0; break;
      case 'K': shift = 10; break;
      case 'M': shift = 20; break;
      case 'G': shift = 30; break;
      case 'T': shift = 40; break;
      case 'P': shift = 50; break;
      case 'E': shift = 60; break;
      default: throw CUsageError(command, bad);
    }
    ++at;
  }
  // A fraction of a byte means nothing; a fraction of a bigger unit rounds.
  if (whole.empty() || at != text.size() || (hasPoint && shift == 0)) throw CUsageError(command, bad);
  const std::string tooLarge = "invalid " + what + " '" + text + "': too large";
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  const int64_t limit = kMax >> shift;
  int64_t value = 0;
  for (char c : whole) {
    const int digit = c - '0';
    if (digit > limit || value > (limit - digit) / 10) throw CUsageError(command, tooLarge);
    value = value * 10 + digit;
  }
  value <<= shift;
  // Only the first 18 digits of a fraction can change the result by a byte.
  fraction.resize(std::min<size_t>(fraction.size(), 18));
  if (!fraction.empty()) {
    unsigned __int128 numerator = std::stoull(fraction);
    unsigned __int128 denominator = 1;
    for (size_t i = 0; i < fraction.size(); ++i) denominator *= 10;
    const unsigned __int128 part = ((numerator << shift) + denominator / 2) / denominator;
    if (part > static_cast<unsigned __int128>(kMax - value)) throw CUsageError(command, tooLarge);
    value += static_cast<int64_t>(part);
  }
  return value;
}

int64_t parseCount(const std::string& command, const std::string& what, const std::string& text, int64_t min,
                   int64_t max) {
  int64_t value = 0;
  bool ok = !text.empty() && text.size() <= 18;
  for (char c : text) ok = ok && std::isdigit(static_cast<unsigned char>(c));
  if (ok) value = std::stoll(text);
  if (!ok || value < min || value > max) {
    throw CUsageError(command, "invalid " + what + " '" + text + "': expecting a number from " +
                                   std::to_string(min) + " to " + std::to_string(max));
  }
  return value;
}

int64_t CDiskOptions::getFileSizeLimit() const {
  if (splitSize > 0) return splitSize;
  return subformat == "twoGbMaxExtentSparse" ? int64_t(2) << 30 : -1;
}

bool isDiskOptionsHelp(const std::string& text) { return text == "help" || text == "?"; }

const char* getDiskOptionsHelp() {
  return "Options of a new disk (-o KEY=VALUE,KEY=VALUE):\n"
         "  subformat=monolithicSparse|twoGbMaxExtentSparse|streamOptimized\n"
         "                        one file / split files / compressed grains\n"
         "                        (default monolithicSparse)\n"
         "  split-size=SIZE       largest size of one file, metadata included\n"
         "                        (default 2G for twoGbMaxExtentSparse; splits\n"
         "                        streamOptimized too)\n"
         "  compression-level=N   deflate level 0 to 9 of streamOptimized (default 2)\n"
         "  backing-file=PATH     makes a differencing disk over PATH, relative\n"
         "                        to the new disk's folder; PATH is stored as given\n"
         "  backing_file=PATH     the same, as qemu-img spells it\n"
         "  backing_fmt=vmdk      accepted for qemu-img's sake; only vmdk\n"
         "  on-demand=on|off      split disks: extent files made on first write\n"
         "  encrypted=on|off      AES-256 with the run's password (--password-file,\n"
         "                        ZARN_PASSWORD or a prompt; see 'zarn-img --help').\n"
         "                        A child of an encrypted disk is encrypted with it\n"
         "                        unless encrypted=off says otherwise\n"
         "  confine=DIR           every file of the disk must lie under DIR\n";
}

namespace {

bool parseOnOff(const std::string& command, const std::string& key, const std::string& value) {
  if (value == "on") return true;
  if (value == "off") return false;
  throw CUsageError(command, "invalid value '" + value + "' for option '" + key + "': expecting on or off");
}

}  // namespace

void parseDiskOptions(const std::string& command, const std::string& text, CDiskOptions& options) {
  size_t start = 0;
  bool splitGiven = false;
  while (start <= text.size()) {
    size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    const std::string item = text.substr(start, end - start);
    start = end + 1;
    if (item.empty()) continue;
    const size_t eq = item.find('=');
    if (eq == std::string::npos) throw CUsageError(command, "invalid option '" + item + "': expecting KEY=VALUE");
    const std::string key = item.substr(0, eq);
    const std::string value = item.substr(eq + 1);
    if (key != "confine") options.setsCreation = true;
    if (key == "subformat") {
      if (value != "monolithicSparse" && value != "twoGbMaxExtentSparse" && value != "streamOptimized") {
        throw CUsageError(command, "invalid subformat '" + value +
                                       "': expecting monolithicSparse, twoGbMaxExtentSparse or streamOptimized");
      }
      options.subformat = value;
    } else if (key == "split-size") {
      options.splitSize = parseSize(command, "split-size", value);
      if (options.splitSize < (int64_t(1) << 20)) throw CUsageError(command, "invalid split-size '" + value + "': at least 1M");
      splitGiven = true;
    } else if (key == "compression-level") {
      options.compressionLevel = static_cast<int>(parseCount(command, "compression-level", value, 0, 9));
    } else if (key == "backing-file" || key == "backing_file") {
      if (value.empty()) throw CUsageError(command, key + " needs a path");
      options.backingFile = value;
    } else if (key == "backing_fmt" || key == "backing-fmt") {
      if (value != "vmdk") throw CUsageError(command, "invalid " + key + " '" + value + "': a parent is a vmdk disk");
    } else if (key == "on-demand") {
      options.onDemand = parseOnOff(command, key, value);
    } else if (key == "encrypted") {
      options.encrypted = parseOnOff(command, key, value);
    } else if (key == "confine") {
      if (value.empty()) throw CUsageError(command, "confine needs a folder");
      options.confine = value;
    } else {
      throw CUsageError(command, "unknown option '" + key + "' (try -o help)");
    }
  }
  if (splitGiven && options.subformat == "monolithicSparse") {
    throw CUsageError(command, "split-size needs subformat=twoGbMaxExtentSparse or streamOptimized");
  }
  if (options.compressionLevel >= 0 && !options.isCompressed()) {
    throw CUsageError(command, "compression-level needs subformat=streamOptimized");
  }
}

}  // namespace zarn_img
