// The Prometheus rules installed beside the unit: promtool checks them and runs their unit tests,
// which can fail; every rule has a test; the tests' input series are named and labelled as a real
// scrape of the built serve shows them, so that neither drifts from the metrics; and Prometheus
// records from that serve what the rules say.
#include <android-base/file.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "background.h"
#include "child_process.h"
#include "namespace.h"
#include "self_status.h"
#include "serve_bed.h"

namespace zelk::testbed {
namespace {

using Args = std::vector<std::string>;

std::string fileText(const std::string& path) {
  std::string text;
  EXPECT_TRUE(android::base::ReadFileToString(path, &text)) << path;
  return text;
}

TEST(PromtoolRules, CheckedAndTestedWithATestForEveryRule) {
  const std::string promtool = installedProgram("promtool");
  if (promtool.empty())
    ZELK_SKIP_OR_FAIL("Debian's prometheus package (promtool) is not installed");
  ChildResult run = runProgram(promtool.c_str(), {"check", "rules", ZELK_RULES_PATH});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("SUCCESS"), std::string::npos) << run.output;
  run = runProgram(promtool.c_str(), {"test", "rules", ZELK_RULES_TEST_PATH});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("SUCCESS"), std::string::npos) << run.output;

  // promtool leaves a rule without a test alone: each recorded series is some test's expression,
  // each alert some test's alertname.
  const std::string rules = fileText(ZELK_RULES_PATH), tests = fileText(ZELK_RULES_TEST_PATH);
  const std::regex rule("\n *- (record|alert): (\\S+)\n");
  size_t count = 0;
  for (auto it = std::sregex_iterator(rules.begin(), rules.end(), rule);
       it != std::sregex_iterator(); ++it, ++count) {
    const std::string key = (*it)[1] == "record" ? "expr: " : "alertname: ";
    EXPECT_NE(tests.find(key + (*it)[2].str() + "\n"), std::string::npos)
        << (*it)[2] << " has no test";
  }
  EXPECT_GE(count, 10u);
}

// The tests pass because the rules compute what they expect: one wrong number fails them.
TEST(PromtoolRules, AWrongExpectedValueFails) {
  const std::string promtool = installedProgram("promtool");
  if (promtool.empty())
    ZELK_SKIP_OR_FAIL("Debian's prometheus package (promtool) is not installed");
  std::string tests = fileText(ZELK_RULES_TEST_PATH);
  const std::string ruleFile = "  - ../../tools/zelkcputime/zelkcputime-rules.yml\n";
  const std::string right = "value: 2.4e9\n";
  ASSERT_NE(tests.find(ruleFile), std::string::npos);
  ASSERT_NE(tests.find(right), std::string::npos);
  tests.replace(tests.find(ruleFile), ruleFile.size(),
                std::string("  - ") + ZELK_RULES_PATH + "\n");
  tests.replace(tests.find(right), right.size(), "value: 2.5e9\n");
  const std::string copy = "/tmp/zelk-rules-test-" + std::to_string(getpid()) + ".yml";
  ASSERT_TRUE(android::base::WriteStringToFile(tests, copy));
  const ChildResult run = runProgram(promtool.c_str(), {"test", "rules", copy});
  unlink(copy.c_str());
  EXPECT_EQ(run.status, 1) << run.output;
  EXPECT_NE(run.output.find("FAILED"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("got: {__name__=\"instance_comm_foreground:zelk_process_cpu_cycles_per_"
                            "cpu_seconds:ratio_rate5m\", comm=\"nginx\""),
            std::string::npos)
      << run.output;
}

struct Series {
  std::string name;
  std::map<std::string, std::string> labels;
};

// `name{label="value",...}` as both the text format and promtool's series write it; nothing for
// anything else.
std::optional<Series> parseSeries(const std::string& text) {
  static const std::regex whole(R"(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{(.*)\})?)");
  static const std::regex label(R"re(([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\]|\\.)*)",?)re");
  std::smatch match;
  if (!std::regex_match(text, match, whole)) return std::nullopt;
  Series series{match[1], {}};
  const std::string labels = match[3];
  size_t parsed = 0;
  for (auto it = std::sregex_iterator(labels.begin(), labels.end(), label);
       it != std::sregex_iterator(); ++it) {
    if (static_cast<size_t>(it->position()) != parsed) return std::nullopt;
    series.labels[(*it)[1]] = (*it)[2];
    parsed += it->length();
  }
  if (parsed != labels.size()) return std::nullopt;
  return series;
}

// Labels whose values name the machine's policies and frequencies, or its tasks and cgroups: a
// test may use any. The others (foreground, map) take the exporter's own values.
bool freeValue(const std::string& label) {
  static const std::set<std::string> kFree = {"comm",         "cgroup",  "unit",    "policy",
                                              "container_id", "pod_uid", "freq_khz"};
  return kFree.count(label) != 0;
}

// Whether `scraped` has a series of `wanted`'s name, with its label names, and its values where
// they are not free.
bool shaped(const Series& wanted, const std::vector<Series>& scraped) {
  for (const Series& real : scraped) {
    if (real.name != wanted.name || real.labels.size() != wanted.labels.size()) continue;
    bool same = true;
    for (const auto& [name, value] : wanted.labels) {
      const auto it = real.labels.find(name);
      same = same && it != real.labels.end() && (freeValue(name) || it->second == value);
    }
    if (same) return true;
  }
  return false;
}

class RulesScrapeTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true, .network = true}; }
};

TEST_F(RulesScrapeTest, TheTestsInputSeriesAreThoseOfARealScrape) {
  addMachinePolicy({300000, 600000});
  // A model in µW, so that the energy counters are in joules.
  const std::string model = "/tmp/zelk-rules-model-" + std::to_string(getpid()) + ".csv";
  ASSERT_TRUE(android::base::WriteStringToFile(
      "policy,freq_khz,power_uw\n0,300000,100000\n0,600000,400000\n", model));
  // A process in the background (oom_score_adj 500) that runs once serve tracks, for the
  // foreground="false" series.
  Child background([](Child& link) {
    link.tell(0);
    link.awaitGo();
    const int fd = open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
    if (fd < 0 || write(fd, "500", 3) != 3) _exit(122);
    close(fd);
    prctl(PR_SET_NAME, "zelkrulesbg", 0, 0, 0);
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
         std::chrono::steady_clock::now() < end;) {
    }
    link.tell(1);
    link.awaitGo();
  });
  ASSERT_TRUE(background.next().has_value());
  Background serve(ZELK_TOOL_PATH, Args{"serve", "--process-min-seconds", "0", "--model", model});
  const bool serving = serve.waitFor("serving http://127.0.0.1:10410/metrics", milliseconds(30000));
  unlink(model.c_str());
  ASSERT_TRUE(serving) << serve.output();
  // The library's seeding pass deletes pid entries made before it; the pressure trigger follows.
  serve.waitFor("pressure trigger", milliseconds(2000));
  background.go();
  ASSERT_TRUE(background.next().has_value());

  std::vector<Series> scraped;
  std::string body;
  ASSERT_TRUE(waitUntil(
      [&] {
        body = httpRequest(10410, "GET", "/metrics").body;
        return body.find("{comm=\"zelkrulesbg\",foreground=\"false\"}") != std::string::npos;
      },
      milliseconds(5000)))
      << body;
  // A sample's value follows its last space: task names may have spaces of their own.
  for (size_t start = 0, end; start < body.size(); start = end + 1) {
    end = body.find('\n', start);
    if (end == std::string::npos) end = body.size();
    const std::string line = body.substr(start, end - start);
    if (line.empty() || line[0] == '#') continue;
    const auto series = parseSeries(line.substr(0, line.rfind(' ')));
    ASSERT_TRUE(series) << line;
    scraped.push_back(*series);
  }

  // Prometheus adds instance and job to what it scrapes.
  const std::string tests = fileText(ZELK_RULES_TEST_PATH);
  const std::regex input("\n *- series: '([^']*)'");
  size_t inputs = 0;
  for (auto it = std::sregex_iterator(tests.begin(), tests.end(), input);
       it != std::sregex_iterator(); ++it, ++inputs) {
    std::optional<Series> series = parseSeries((*it)[1]);
    ASSERT_TRUE(series) << (*it)[1];
    EXPECT_EQ(series->labels.erase("instance") + series->labels.erase("job"), 2u) << (*it)[1];
    EXPECT_TRUE(shaped(*series, scraped)) << (*it)[1] << " is not a series that serve exports";
  }
  EXPECT_GE(inputs, 20u);

  // Prometheus with the rules, on what serve counts: every CPU's time at the policy's 300 MHz, so
  // the averages are that frequency and the power 0.1 W per busy CPU.
  Prometheus prometheus;
  const std::string error = prometheus.start(std::string(R"(global:
  scrape_interval: 1s
  scrape_timeout: 1s
  evaluation_interval: 1s
rule_files: [')") + ZELK_RULES_PATH + R"(']
scrape_configs:
  - job_name: zelkcputime
    static_configs: [{targets: ['127.0.0.1:10410']}]
)",
                                             19090);
  if (error.find("not installed") != std::string::npos) ZELK_SKIP_OR_FAIL(error);
  ASSERT_EQ(error, "");
  const std::string policyHz = "instance_policy:zelk_cpu_cycles_per_cpu_seconds:ratio_rate5m";
  ASSERT_TRUE(
      waitUntil([&] { return prometheus.query(policyHz).has_value(); }, milliseconds(20000)))
      << prometheus.log();
  EXPECT_NEAR(prometheus.query(policyHz).value_or(0), 300e6, 1);
  EXPECT_NEAR(prometheus
                  .query("instance_comm_foreground:zelk_process_cpu_cycles_per_cpu_seconds:ratio_"
                         "rate5m{comm=\"zelkcputime\"}")
                  .value_or(0),
              300e6, 1);
  EXPECT_NEAR(prometheus
                  .query("instance:zelk_cpu_joules:rate5m / on (instance) "
                         "instance_policy:zelk_cpu_seconds:rate5m")
                  .value_or(0),
              0.1, 0.001);
  // Every rule evaluated without an error, and the alert quiet on maps almost empty.
  std::string rulesState;
  EXPECT_TRUE(waitUntil(
      [&] {
        rulesState = httpRequest(19090, "GET", "/api/v1/rules").body;
        size_t healthy = 0;
        for (size_t at = 0; (at = rulesState.find("\"health\":\"ok\"", at)) != std::string::npos;
             ++at) {
          ++healthy;
        }
        return healthy == 10;
      },
      milliseconds(10000)))
      << rulesState;
  EXPECT_NE(rulesState.find("\"name\":\"ZelkMapNearlyFull\""), std::string::npos) << rulesState;
  EXPECT_NE(rulesState.find("\"state\":\"inactive\""), std::string::npos) << rulesState;
  background.go();
  EXPECT_EQ(serve.stop(), 0) << serve.output();
}

}  // namespace
}  // namespace zelk::testbed
