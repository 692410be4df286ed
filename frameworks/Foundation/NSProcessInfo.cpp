#include <Foundation/NSProcessInfo.h>

#include <dispatch/Scheduler.h>

const NSProcessInfo& NSProcessInfo::processInfo() {
  static const NSProcessInfo info;
  return info;
}

double NSProcessInfo::systemUptime() const {
  return static_cast<double>(runtime::Scheduler::current().now()) / runtime::NanosecondsPerSecond;
}
