// oxa::oxa_time_tick: a wall-clock time in microseconds, and the unit conversions around it.
#include <sys/time.h>

#include "oxa_time.h"

#include "time/wrapping_math.h"

using oxa::internal::WrappingAdd;
using oxa::internal::WrappingMul;
using oxa::internal::WrappingSub;

// The class is ABI: a vtable pointer (destructor and deleting destructor only) and the value,
// which is 8-byte aligned on the target.
#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(oxa::oxa_time_tick) == 16, "oxa_time_tick layout is ABI");
#endif

namespace {

constexpr long long kUsPerMs = 1000;
constexpr long long kUsPerSecond = 1000000;
constexpr long long kMsPerSecond = 1000;

// value / unit rounded half up, for value >= 0, without overflowing near the top of the range.
long long RoundedDiv(long long value, long long unit) {
  return value / unit + (value % unit >= (unit + 1) / 2 ? 1 : 0);
}

// A timeval as a count of `per_second` units per second plus its microseconds, already in
// those units; -1 for null or a field that holds the -1 of a failed read.
template <typename MicrosecondsToUnit>
long long FromTimeval(const struct timeval* tv, long long per_second, MicrosecondsToUnit convert) {
  if (tv == nullptr || tv->tv_sec == -1 || tv->tv_usec == -1) return -1;
  return WrappingAdd(WrappingMul(tv->tv_sec, per_second), convert(tv->tv_usec));
}

}  // namespace

namespace oxa {

oxa_time_tick::oxa_time_tick() : value_(now()) {}
oxa_time_tick::oxa_time_tick(long long us) : value_(us) {}
oxa_time_tick::oxa_time_tick(const oxa_time_tick& other) = default;
oxa_time_tick& oxa_time_tick::operator=(const oxa_time_tick& other) = default;
oxa_time_tick::~oxa_time_tick() = default;

long long oxa_time_tick::now() {
  struct timeval now_tv;
  if (gettimeofday(&now_tv, nullptr) != 0) return -1;
  return static_cast<long long>(now_tv.tv_sec) * kUsPerSecond + now_tv.tv_usec;
}

long long oxa_time_tick::get_time() const { return value_; }

void oxa_time_tick::update_time() { value_ = now(); }

oxa_time_tick& oxa_time_tick::operator+=(const oxa_time_tick& other) {
  value_ = WrappingAdd(value_, other.value_);
  return *this;
}

oxa_time_tick& oxa_time_tick::operator-=(const oxa_time_tick& other) {
  value_ = WrappingSub(value_, other.value_);
  return *this;
}

long long oxa_time_tick::timeval2ms(const struct timeval* tv) {
  // The microseconds are rounded half up to milliseconds.
  return FromTimeval(tv, kMsPerSecond, [](long long usec) { return (usec + 500) / kUsPerMs; });
}

void oxa_time_tick::ms2timeval(long long ms, struct timeval* tv) {
  if (ms < 0 || tv == nullptr) return;
  tv->tv_sec = static_cast<time_t>(ms / kMsPerSecond);
  tv->tv_usec = static_cast<suseconds_t>(ms % kMsPerSecond * kUsPerMs);
}

long long oxa_time_tick::timeval2us(const struct timeval* tv) {
  return FromTimeval(tv, kUsPerSecond, [](long long usec) { return usec; });
}

void oxa_time_tick::us2timeval(long long us, struct timeval* tv) {
  if (us < 0 || tv == nullptr) return;
  tv->tv_sec = static_cast<time_t>(us / kUsPerSecond);
  tv->tv_usec = static_cast<suseconds_t>(us % kUsPerSecond);
}

long long oxa_time_tick::us2ms(long long us) { return us < 0 ? -1 : RoundedDiv(us, kUsPerMs); }

long long oxa_time_tick::us2s(long long us) { return us < 0 ? -1 : RoundedDiv(us, kUsPerSecond); }

long long oxa_time_tick::ms2s(long long ms) { return ms < 0 ? -1 : RoundedDiv(ms, kMsPerSecond); }

bool operator==(const oxa_time_tick& a, const oxa_time_tick& b) {
  return a.get_time() == b.get_time();
}
bool operator<(const oxa_time_tick& a, const oxa_time_tick& b) {
  return a.get_time() < b.get_time();
}
bool operator>(const oxa_time_tick& a, const oxa_time_tick& b) {
  return a.get_time() > b.get_time();
}

}  // namespace oxa
