#include "commands/options.h"

#include <cmath>
#include <optional>
#include <regex>

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
    if (name == "--sample-ms") {
      unsigned long long value = 0;
      if (i + 1 >= args.size() || !parseCount(args[i + 1], 1, 1000, &value)) {
        parsed.error = "--sample-ms takes a period in milliseconds from 1 to 1000";
        return parsed;
      }
      ++i;
      options.sampleMs = static_cast<unsigned>(value);
    } else if (name == "--sample") {
      options.sample = true;
    } else if (name == "--limit" || name == "--seconds") {
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
    } else if (name == "--kthreads" && !options.words.empty() && options.words[0] == "top") {
      options.kthreadView = true;
    } else if (name == "--cgroups" && !options.words.empty() && options.words[0] == "top") {
      options.cgroupView = true;
    } else if (name == "--depth" || name == "--cgroup-depth") {
      unsigned long long value = 0;
      if (i + 1 >= args.size() || !parseCount(args[i + 1], 0, kMaxCgroupDepth, &value)) {
        parsed.error = name + " takes a number of levels below the root from 0 to " +
                       std::to_string(kMaxCgroupDepth);
        return parsed;
      }
      ++i;
      options.cgroupDepth = static_cast<unsigned>(value);
    } else if (name == "--interval" || name == "--iterations") {
      const std::string value = i + 1 < args.size() ? args[i + 1] : "";
      const std::optional<double> seconds = com::zelkora::parsePlainDecimal(value);
      unsigned long long count = 0;
      if (name == "--interval" ? !seconds || !(*seconds >= 0.1 && *seconds <= 3600)
                               : !parseCount(value, 1, 1000000, &count)) {
        parsed.error = name == "--interval" ? "--interval takes seconds from 0.1 to 3600"
                                            : "--iterations takes a number of frames from 1";
        return parsed;
      }
      ++i;
      if (name == "--interval") {
        options.interval = *seconds;
      } else {
        options.iterations = static_cast<unsigned>(count);
      }
    } else if (name == "--batch") {
      options.batch = true;
    } else if (name == "--class-times-kthreads") {
      options.classKthreads = true;
    } else if (name == "--names" || name == "--kthreads" || name == "--pids" ||
               name == "--cgroups") {
      uint32_t* entries = name == "--names"      ? &options.sizes.names
                          : name == "--kthreads" ? &options.sizes.kthreads
                          : name == "--pids"     ? &options.sizes.pids
                                                 : &options.sizes.cgroups;
      parsed.error = loader::parseMapSize(name, i + 1 < args.size() ? args[i + 1] : "", entries);
      if (!parsed.error.empty()) return parsed;
      ++i;
    } else if (name == "--web.config.file") {
      if (i + 1 >= args.size() || args[i + 1].empty()) {
        parsed.error = "--web.config.file takes a path";
        return parsed;
      }
      options.webConfigFile = args[++i];
    } else if (name == "--model" || name == "--voltage") {
      if (i + 1 >= args.size() || args[i + 1].empty()) {
        parsed.error = name + (name == "--model" ? " takes a path" : " takes a number of volts");
        return parsed;
      }
      const std::string& value = args[++i];
      if (name == "--model") {
        options.model = value;
      } else {
        const std::optional<double> volts = com::zelkora::parsePlainDecimal(value);
        if (!volts || *volts <= 0) {
          parsed.error = "--voltage takes a positive number of volts, such as 3.8";
          return parsed;
        }
        options.voltage = *volts;
      }
    } else if (name == "--listen" || name == "--per-frequency") {
      if (i + 1 >= args.size()) {
        parsed.error = name + " takes a value";
        return parsed;
      }
      (name == "--listen" ? options.listen : options.perFrequency) = args[++i];
    } else if (name == "--match" || name == "--cgroup-match" || name == "--process-match") {
      if (i + 1 >= args.size()) {
        parsed.error = name + " takes a regular expression";
        return parsed;
      }
      std::string& value = name == "--process-match" ? options.processMatch : options.cgroupMatch;
      value = args[++i];
      try {
        std::regex check(value, std::regex::ECMAScript | std::regex::nosubs);
      } catch (const std::regex_error& e) {
        parsed.error = name + " takes a regular expression: " + e.what();
        return parsed;
      }
    } else if (name == "--process-min-seconds") {
      const std::optional<double> seconds =
          com::zelkora::parsePlainDecimal(i + 1 < args.size() ? args[i + 1] : "");
      if (!seconds || !(*seconds <= 1e9)) {
        parsed.error = "--process-min-seconds takes seconds from 0 to 1000000000";
        return parsed;
      }
      options.processMinSeconds = *seconds;
      ++i;
    } else if (name == "--web.header-timeout") {
      const std::optional<double> seconds =
          com::zelkora::parsePlainDecimal(i + 1 < args.size() ? args[i + 1] : "");
      if (!seconds || !(*seconds >= 0.1 && *seconds <= 3600)) {
        parsed.error = "--web.header-timeout takes seconds from 0.1 to 3600";
        return parsed;
      }
      options.web.headerTimeout = std::chrono::milliseconds(std::llround(*seconds * 1000));
      ++i;
    } else if (name == "--web.max-connections" || name == "--web.max-body-bytes") {
      const bool connections = name == "--web.max-connections";
      unsigned long long value = 0;
      if (i + 1 >= args.size() ||
          !parseCount(args[i + 1], connections ? 1 : 0, connections ? 65536 : 1ull << 30, &value)) {
        parsed.error = name + (connections ? " takes a number of connections from 1 to 65536"
                                           : " takes a number of bytes from 0 to 1073741824");
        return parsed;
      }
      ++i;
      if (connections) {
        options.web.maxConnections = static_cast<unsigned>(value);
      } else {
        options.web.maxBodyBytes = value;
      }
    } else if (name == "--json" || name == "--csv") {
      if (options.given.count(name == "--json" ? "--csv" : "--json") != 0) {
        parsed.error = "--json and --csv exclude each other";
        return parsed;
      }
      options.format = name == "--json" ? Format::kJson : Format::kCsv;
    } else if (name == "--flag") {
      options.flag = true;
    } else if (name == "--background") {
      options.background = true;
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
