// The loader's text handling: program sections to pin names, and libbpf's output to the
// verifier's complaint.
#include <gtest/gtest.h>

#include "libbpf_messages.h"
#include "object_pins.h"

namespace zelk::loader {
namespace {

TEST(ProgramPin, TracepointSectionsNameTheirPins) {
  const ProgramPin pin = programPin("tracepoint/oom/oom_score_adj_update");
  EXPECT_EQ(pin.path, "/sys/fs/bpf/prog_zelkCputimeInState_tracepoint_oom_oom_score_adj_update");
  EXPECT_EQ(pin.category, "oom");
  EXPECT_EQ(pin.event, "oom_score_adj_update");
  for (const char* section : {"tp/sched/sched_switch", "tracepoint/sched", "tracepoint//x",
                              "tracepoint/sched/", "tracepoint/a/b/c", "kprobe/x", ""}) {
    EXPECT_EQ(programPin(section).path, "") << section;
  }
}

TEST(ProgramPin, EmbeddedObjectHasTheLibrarysPins) {
  const PinList pins = objectPins(embeddedObject());
  ASSERT_EQ(pins.error, "");
  EXPECT_EQ(pins.maps.size(), 13u);
  EXPECT_EQ(pins.programs.size(), 6u);
}

TEST(FindVerifierRejection, KeepsTheEndOfTheLogAndTheProgram) {
  const std::string text =
      "libbpf: prog 'sched_switch': BPF program load failed: Permission denied\n"
      "libbpf: prog 'sched_switch': -- BEGIN PROG LOAD LOG --\n"
      "0: (b7) r1 = 0\n1: (85) call 1\n\n2: (79) r1 = *(u64 *)(r0 +32)\n"
      "invalid access to map value, value_size=8 off=32 size=8\n"
      "-- END PROG LOAD LOG --\n"
      "libbpf: failed to load object\n";
  const VerifierRejection rejection = findVerifierRejection(text, 2);
  EXPECT_EQ(rejection.program, "sched_switch");
  EXPECT_EQ(rejection.log,
            "2: (79) r1 = *(u64 *)(r0 +32)\n"
            "invalid access to map value, value_size=8 off=32 size=8\n");
}

TEST(FindVerifierRejection, OtherFailuresHaveNone) {
  EXPECT_EQ(findVerifierRejection("libbpf: map 'x': failed to create: -1\n", 5).program, "");
  EXPECT_EQ(findVerifierRejection("", 5).program, "");
  // A log cut short still yields what there is.
  EXPECT_EQ(findVerifierRejection("-- BEGIN PROG LOAD LOG --\nlast words\n", 5).log,
            "last words\n");
}

TEST(LastLine, SkipsTrailingNewlines) {
  EXPECT_EQ(lastLine("a\nb\n\n"), "b");
  EXPECT_EQ(lastLine("only"), "only");
  EXPECT_EQ(lastLine("\n\n"), "");
}

}  // namespace
}  // namespace zelk::loader
