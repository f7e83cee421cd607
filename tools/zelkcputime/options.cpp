#include "options.h"

#include "core/decimal.h"

namespace zelk::cli {
namespace {

// Decimal digits only, within [min, max].
bool parseCount(const std::string& text, unsigned long long min, unsigned long long max,
                unsigned long long* value) {
  return com::zelkora::parseDecimal(text, value, max) && *value >= min;
}

}  // namespace

ParsedOptions parseOptions(const std::vector<std::string>& args) {
  ParsedOptions parsed;
  Options& options = parsed.options;
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (optionsEnded || arg.empty() || arg[0] != '-') {
      options.words.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    std::string name = arg == "-v" ? "--verbose" : arg == "-h" ? "--help" : arg;
    if (name == "--limit" || name == "--seconds") {
      unsigned long long value = 0;
      const bool limit = name == "--limit";
      if (i + 1 >= args.size() ||
          !parseCount(args[i + 1], limit ? 0 : 1, limit ? 1000000000 : 3600, &value)) {
        parsed.error = name + (limit ? " takes a number of rows (0 for all)"
                                     : " takes a number of seconds from 1 to 3600");
        return parsed;
      }
      ++i;
      if (limit) {
        options.limit = static_cast<size_t>(value);
      } else {
        options.seconds = static_cast<unsigned>(value);
      }
    } else if (name == "--names" || name == "--kthreads" || name == "--pids") {
      uint32_t* entries = name == "--names"      ? &options.sizes.names
                          : name == "--kthreads" ? &options.sizes.kthreads
                                                 : &options.sizes.pids;
      parsed.error = loader::parseMapSize(name, i + 1 < args.size() ? args[i + 1] : "", entries);
      if (!parsed.error.empty()) return parsed;
      ++i;
    } else if (name == "--listen" || name == "--model" || name == "--per-frequency") {
      if (i + 1 >= args.size()) {
        parsed.error = name + " takes a value";
        return parsed;
      }
      std::string* value = name == "--listen"  ? &options.listen
                           : name == "--model" ? &options.model
                                               : &options.perFrequency;
      *value = args[++i];
    } else if (name == "--json" || name == "--csv") {
      if (options.given.count(name == "--json" ? "--csv" : "--json") != 0) {
        parsed.error = "--json and --csv exclude each other";
        return parsed;
      }
      options.format = name == "--json" ? Format::kJson : Format::kCsv;
    } else if (name == "--flag") {
      options.flag = true;
    } else if (name == "--replace") {
      options.replace = true;
    } else if (name == "--verbose") {
      options.verbose = true;
    } else if (name == "--help") {
      options.help = true;
    } else {
      parsed.error = "unknown option " + arg;
      return parsed;
    }
    options.given.insert(name);
  }
  return parsed;
}

}  // namespace zelk::cli
