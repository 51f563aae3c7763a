#pragma once
// Runs part of a test in a forked child, for faults that must not touch the
// test process itself: dropped privileges (tests run as root, for whom
// permission bits do not stop anything), resource limits, a crash. The child
// reports through a pipe and is bounded by an alarm.
#include <functional>
#include <string>

namespace x509auth_test {

// The uid and gid a child runs as when it drops root ("nobody").
constexpr unsigned k_nobody = 65534;

struct ChildOptions {
  bool as_nobody = false;       // setresgid/setresuid to nobody before |body|
  unsigned alarm_seconds = 60;  // SIGALRM ends a child that hangs
};

// Runs |body| in a child and returns what it returned, or a text starting
// with "child " when the child failed to report (crash, signal, alarm).
std::string RunInChild(const std::function<std::string()>& body, ChildOptions options = {});

}  // namespace x509auth_test
