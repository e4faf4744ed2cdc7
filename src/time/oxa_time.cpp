// oxa::oxa_time: seconds since the epoch together with their broken-down local time.
#include "oxa_time.h"

#include <time.h>

#include "time/wrapping_math.h"

using oxa::internal::WrappingAdd;
using oxa::internal::WrappingSub;

// The class is ABI: a vtable pointer (destructor and deleting destructor only), a 32-bit
// time_t and the system's 44-byte struct tm.
#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(time_t) == 4, "oxa_time stores a 32-bit time_t on the target");
static_assert(sizeof(struct tm) == 44, "oxa_time embeds the target's struct tm");
static_assert(sizeof(oxa::oxa_time) == 52, "oxa_time layout is ABI");
#endif

namespace {

// Every change of the seconds goes through here, so the fields never fall out of step. A
// time the system cannot break down (only possible with a 64-bit time_t) gives zero fields.
void LocalFields(time_t seconds, struct tm* fields) {
  if (localtime_r(&seconds, fields) == nullptr) *fields = tm{};
}

}  // namespace

namespace oxa {

oxa_time::oxa_time() : seconds_(0), fields_() { now(); }

// Where time_t has 32 bits, the low 32 bits of seconds are kept.
oxa_time::oxa_time(long long seconds) : seconds_(static_cast<time_t>(seconds)), fields_() {
  LocalFields(seconds_, &fields_);
}

oxa_time::oxa_time(const oxa_time& other) = default;

oxa_time& oxa_time::operator=(const oxa_time& other) {
  seconds_ = other.seconds_;
  LocalFields(seconds_, &fields_);
  return *this;
}

oxa_time::~oxa_time() = default;

time_t oxa_time::now() {
  seconds_ = time(nullptr);
  LocalFields(seconds_, &fields_);
  return seconds_;
}

time_t oxa_time::get_time() const { return seconds_; }
void oxa_time::update_time() { now(); }

int oxa_time::get_year() const { return fields_.tm_year + 1900; }
int oxa_time::get_mon() const { return fields_.tm_mon; }
int oxa_time::get_day() const { return fields_.tm_mday; }
int oxa_time::get_mon_day() const { return fields_.tm_mday; }
int oxa_time::get_hour() const { return fields_.tm_hour; }
int oxa_time::get_min() const { return fields_.tm_min; }
int oxa_time::get_sec() const { return fields_.tm_sec; }
int oxa_time::get_week_day() const { return fields_.tm_wday; }
int oxa_time::get_year_day() const { return fields_.tm_yday; }

// Sums and differences wrap in the width of time_t, as the stored seconds would.
oxa_time& oxa_time::operator+=(const oxa_time& other) {
  seconds_ = static_cast<time_t>(WrappingAdd(seconds_, other.seconds_));
  LocalFields(seconds_, &fields_);
  return *this;
}

oxa_time& oxa_time::operator-=(const oxa_time& other) {
  const time_t difference = static_cast<time_t>(WrappingSub(seconds_, other.seconds_));
  seconds_ = difference < 0 ? 0 : difference;
  LocalFields(seconds_, &fields_);
  return *this;
}

struct tm* oxa_time::time2tm(long long seconds, struct tm* fields) {
  if (fields == nullptr || seconds < 0) return nullptr;
  const time_t system_seconds = static_cast<time_t>(seconds);
  return localtime_r(&system_seconds, fields);
}

bool operator==(const oxa_time& a, const oxa_time& b) { return a.get_time() == b.get_time(); }
bool operator!=(const oxa_time& a, const oxa_time& b) { return a.get_time() != b.get_time(); }
bool operator<(const oxa_time& a, const oxa_time& b) { return a.get_time() < b.get_time(); }
bool operator>(const oxa_time& a, const oxa_time& b) { return a.get_time() > b.get_time(); }

}  // namespace oxa
