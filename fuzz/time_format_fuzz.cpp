// The time formatting functions with arbitrary formats, fields, sizes and time values; every
// output buffer is exactly as large as the size passed, so an overrun is caught.
#include <string.h>
#include <time.h>

#include <memory>
#include <string>

#include "oxa_time.h"

#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oxa_fuzz::Input input(data, size);
  OXA_TIME_EXP_T exp = input.Value<OXA_TIME_EXP_T>();
  const long long time = input.Value<long long>();
  const unsigned int buffer_size = input.Byte();
  const std::string format = input.Rest();

  std::unique_ptr<char[]> buffer(new char[buffer_size + 1]);
  unsigned int length = 12345;
  const int result = OXA_StrFmtTime(buffer.get(), &length, buffer_size, format.c_str(), &exp);
  OXA_FUZZ_CHECK(result == 0);
  if (length > 0) {
    OXA_FUZZ_CHECK(length < buffer_size);
    OXA_FUZZ_CHECK(buffer[length] == '\0');
  }

  struct tm fields;
  memset(&fields, 0, sizeof fields);
  fields.tm_sec = exp.tm_sec;
  fields.tm_min = exp.tm_min;
  fields.tm_hour = exp.tm_hour;
  fields.tm_mday = exp.tm_mday;
  fields.tm_mon = exp.tm_mon;
  fields.tm_year = exp.tm_year;
  fields.tm_wday = exp.tm_wday;
  fields.tm_yday = exp.tm_yday;
  const unsigned int written =
      win32_strftime_extra(buffer.get(), buffer_size, format.c_str(), &fields);
  OXA_FUZZ_CHECK(written == 0 || written < buffer_size);

  long long from_fields = 0;
  OXA_TimeFromExpTime(&exp, &from_fields);  // unchecked fields: must not overflow or crash
  OXA_TimeFromExpTimeGMT(&exp, &from_fields);

  char ctime_text[25];
  if (OXA_CTime(ctime_text, sizeof ctime_text, time) == 0) {
    OXA_FUZZ_CHECK(memchr(ctime_text, '\0', sizeof ctime_text) != nullptr);
  }
  OXA_TIME_EXP_T back;
  if (OXA_ExpTimeFromTimeGMT(time, &back) == 0) {
    long long again = 0;
    if (OXA_TimeFromExpTime(&back, &again) == 0 && time >= 0 && time < 253402300800000000LL) {
      OXA_FUZZ_CHECK(again == time);
    }
  }
  return 0;
}
