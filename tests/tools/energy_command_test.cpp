// The built tool's energy view against the kernel object: its formats and its one-line errors
// for bad models and command lines.
#include <android-base/file.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tool_run.h"

namespace zelk::testbed {
namespace {

class EnergyCommandTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
  std::string model(const std::string& name, const std::string& text) {
    const std::string path = "/tmp/zelk-energy-command-" + name;
    EXPECT_TRUE(android::base::WriteStringToFile(text, path));
    paths_.push_back(path);
    return path;
  }
  void TearDown() override {
    for (const std::string& path : paths_) unlink(path.c_str());
  }
  std::vector<std::string> paths_;
};

TEST_F(EnergyCommandTest, FormatsAndErrors) {
  addPolicy("policy0", {300000, 600000}, {0, 1, 2, 3});
  addPolicy("policy4", {500000, 800000, 1100000}, {4, 5, 6});
  ASSERT_TRUE(android::base::WriteStringToFile("0", "/proc/self/oom_score_adj"));
  ASSERT_EQ(runTool({"load"}).status, 0);
  ASSERT_EQ(runTool({"start", "--seconds", "1"}).status, 0);

  // This machine's CPUs fall in policy0 at 300000 kHz; 600000 has no power in the model.
  const std::string csv = model("good.csv",
                                "policy,freq_khz,power_uw\n0,300000,1000000\n"
                                "4,500000,1\n4,800000,2\n4,1100000,3\n");
  ChildResult run = runTool({"show", "energy", "total", "--model", csv, "--json"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(contains(run.output, "^\\{\"unit\":\"uJ\",\"model\":\"" + csv +
                                       "\",\"total\":\\{\"energy\":[1-9][0-9]*,"
                                       "\"unmodelled_ns\":0\\}\\}\n$"))
      << run.output;
  run = runTool({"show", "energy", "--model", csv, "--json"}, /*asNobody=*/false,
                /*withStderr=*/false);
  EXPECT_TRUE(contains(run.output,
                       "\"total\":\\{.*\\},\"processes\":\\[\\{\"name\":\"[^\"]+\","
                       "\"flag\":[01],\"energy\":[0-9]+,\"unmodelled_ns\":0\\}.*\\],"
                       "\"kthreads\":\\[.*\\]\\}\n$"))
      << run.output;
  run = runTool({"show", "energy", "processes", "--model", csv, "--csv", "--limit", "1"});
  EXPECT_TRUE(contains(run.output,
                       "^table,name,flag,energy,unit,unmodelled_ns\n"
                       "process,[^,]+,[01],[0-9]+,uJ,0\n$"))
      << run.output;
  run = runTool({"show", "energy", "--model", csv});
  EXPECT_TRUE(
      contains(run.output, "^Power model: " + csv +
                               ", in uJ\nWhole system: [0-9]+ uJ "
                               "\\([0-9.]+ J\\)\n\nProcesses by energy:\nname +fg +energy uJ "
                               "+share %\n"))
      << run.output;

  // Each cgroup with its descendants: the root first, as it holds every task's time.
  run = runTool({"show", "energy", "cgroups", "--model", csv, "--json", "--depth", "1"});
  EXPECT_TRUE(contains(run.output, "^\\{\"unit\":\"uJ\",\"model\":\"" + csv +
                                       "\",\"includes_descendants\":true,\"depth\":1,\"cgroups\":"
                                       "\\[\\{\"path\":\"/\",\"energy\":[1-9][0-9]*,"
                                       "\"unmodelled_ns\":0\\}"))
      << run.output;
  run = runTool({"show", "energy", "cgroups", "--model", csv, "--csv", "--limit", "1"});
  EXPECT_TRUE(contains(run.output,
                       "^table,name,flag,energy,unit,unmodelled_ns\ncgroup,/,,[1-9][0-9]*,uJ,0\n$"))
      << run.output;
  run = runTool({"show", "energy", "cgroups", "--model", csv, "--match", "^/$"});
  EXPECT_TRUE(contains(run.output,
                       "\nCgroups by energy, each with its descendants':\n"
                       "cgroup +energy uJ +share %\n/ +[1-9][0-9]* +[0-9.]+\n$"))
      << run.output;

  // A profile without a voltage gives charge; with one, energy.
  const std::string xml =
      model("profile.xml",
            "<device><array name=\"cpu.clusters.cores\"><value>4</value><value>3</value></array>"
            "<array name=\"cpu.core_speeds.cluster0\"><value>300000</value></array>"
            "<array name=\"cpu.core_power.cluster0\"><value>100</value></array>"
            "<array name=\"cpu.core_speeds.cluster1\"><value>500000</value></array>"
            "<array name=\"cpu.core_power.cluster1\"><value>100</value></array></device>\n");
  run = runTool({"show", "energy", "total", "--model", xml, "--json"});
  EXPECT_TRUE(contains(run.output, "^\\{\"unit\":\"uAh\",")) << run.output;
  run = runTool({"show", "energy", "kthreads", "--model", xml, "--voltage", "3.8"});
  EXPECT_TRUE(contains(run.output, "in uJ\n\nKernel threads by energy:\nname +energy uJ"))
      << run.output;
  // The tool's own process, foreground, all of it at 300000 kHz.
  run = runTool({"show", "energy", "process", "zelkcputime", "--flag", "--model", xml});
  EXPECT_TRUE(contains(run.output, "\nprocess zelkcputime \\(foreground\\): [0-9]+ uAh\n$"))
      << run.output;
  // Without a class, both entries, as show process gives them; the CSV's flag left empty.
  run = runTool({"show", "energy", "process", "zelkcputime", "--model", xml});
  EXPECT_TRUE(
      contains(run.output, "\nprocess zelkcputime \\(foreground and background\\): [0-9]+ uAh\n$"))
      << run.output;
  // A single task is one object, as show process --json gives it.
  run = runTool({"show", "energy", "process", "zelkcputime", "--model", xml, "--json"});
  EXPECT_TRUE(contains(run.output, "^\\{\"unit\":\"uAh\",\"model\":\"" + xml +
                                       "\",\"process\":\\{\"name\":\"zelkcputime\","
                                       "\"energy\":[0-9]+,\"unmodelled_ns\":0\\}\\}\n$"))
      << run.output;
  run = runTool({"show", "energy", "kthread", "ksoftirqd/0", "--model", xml, "--json"});
  EXPECT_TRUE(contains(run.output, "\"kthread\":\\{\"name\":\"ksoftirqd/0\",\"flag\":1,"))
      << run.output;
  run = runTool(
      {"show", "energy", "process", "zelkcputime", "--background", "--model", xml, "--csv"});
  EXPECT_TRUE(contains(run.output, "\nprocess,zelkcputime,0,[0-9]+,uAh,0\n$")) << run.output;
  run = runTool({"show", "energy", "process", "zelkcputime", "--model", xml, "--csv"});
  EXPECT_TRUE(contains(run.output, "\nprocess,zelkcputime,,[0-9]+,uAh,0\n$")) << run.output;

  // Bad models: one line naming the file, exit 1, nothing else.
  const std::string missing = "/tmp/zelk-energy-command-missing.csv";
  const std::string three = model("three.csv", "0,300000,1\n4,500000,1\n7,500000,1\n");
  const std::string negative = model("negative.csv", "0,300000,-1\n");
  const std::string truncated = model("truncated.xml", "<device><array name=\"cpu.clus");
  for (const auto& [path, error] : std::vector<std::pair<std::string, std::string>>{
           {missing, missing + ": No such file or directory"},
           {three, three + ": policy7 is for the policy of CPU 7, which no policy has "
                           "\\(this machine's policies: CPUs 0-3; 4-6\\)"},
           {negative, negative + ": line 1: negative power \"-1\""},
           {truncated,
            truncated + ": line 1: not well-formed XML \\(XML_ERROR_PARSING_ATTRIBUTE\\)"},
       }) {
    run = runTool({"show", "energy", "--model", path});
    EXPECT_EQ(run.status, 1) << path;
    EXPECT_TRUE(contains(run.output, "^zelkcputime: " + error + "\n$")) << run.output;
  }
  run = runTool({"show", "energy"});  // the default: no Energy Model on this machine
  if (access("/sys/kernel/debug/energy_model", F_OK) != 0) {
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(contains(run.output,
                         "^zelkcputime: /sys/kernel/debug/energy_model: this kernel "
                         "has no Energy Model: give --model PATH"))
        << run.output;
  }

  for (const Args& args :
       {Args{"show", "energy", "everything"}, Args{"show", "total", "--model", csv},
        Args{"show", "energy", "kthread", "k", "--flag"}, Args{"show", "energy", "process"},
        Args{"show", "energy", "--background"},
        Args{"show", "energy", "process", "p", "--flag", "--background"},
        Args{"show", "energy", "--voltage", "-1"}, Args{"show", "energy", "--voltage", "1e3"},
        Args{"show", "energy", "processes", "--depth", "1"},
        Args{"show", "energy", "cgroups", "/"}}) {
    run = runTool(args);
    EXPECT_EQ(run.status, 2) << args[2] << ": " << run.output;
  }
  EXPECT_EQ(runTool({"unload"}).status, 0);
}

}  // namespace
}  // namespace zelk::testbed
