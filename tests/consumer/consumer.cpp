// Uses the installed header and library: links, loads, and answers.
#include <zelkcpufreqtime.h>
#include <zelkcpufreqtime_policies.h>

#include <cstdio>

int main() {
  if (!com::zelkora::isNumber("-42") || com::zelkora::isNumber("4x")) return 1;
  const auto freqs = com::zelkora::getCpuFreqs();
  printf("consumer: %s\n", freqs ? "frequency table read" : "no frequency table on this machine");
  const auto policies = com::zelkora::getCpuFreqPolicies();
  if (freqs.has_value() != policies.has_value()) return 1;
  return 0;
}
