#include <lumora/zCritical.h>

#include <mutex>
#include <new>

namespace {

class RecursiveCritical final : public zCritical {
 public:
  void Lock() override { _mutex.lock(); }
  void Unlock() override { _mutex.unlock(); }

 private:
  std::recursive_mutex _mutex;
};

}  // namespace

zCritical* zCritical::Factory(char /*recursive*/) noexcept {
  return new (std::nothrow) RecursiveCritical;
}
