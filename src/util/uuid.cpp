// Unique identifiers from libuuid and their text form.
#include <stdio.h>
#include <string.h>
#include <uuid/uuid.h>

#include <cstdint>

#include "oxa_sysinfo.h"

static_assert(sizeof(uuid_t) == OXA_UUID_SIZE, "identifier is 16 bytes");

extern "C" {

OXA_API int OXA_GetUUID(unsigned char uuid[OXA_UUID_SIZE]) {
  if (uuid == nullptr) return OXA_ERROR;
  uuid_generate(uuid);
  return 0;
}

OXA_API int OXA_StringFromUUID(const unsigned char uuid[OXA_UUID_SIZE], char* buffer, int size) {
  if (uuid == nullptr || buffer == nullptr || size < OXA_UUID_TEXT_LENGTH) return OXA_ERROR;
  // The first three groups are native numbers, not byte sequences: on a little-endian
  // processor their bytes show reversed. That is the text form users compare against.
  uint32_t first;
  uint16_t second;
  uint16_t third;
  memcpy(&first, uuid, sizeof first);
  memcpy(&second, uuid + 4, sizeof second);
  memcpy(&third, uuid + 6, sizeof third);
  // A size of 36 is accepted; the terminator then takes the place of the last digit.
  snprintf(buffer, static_cast<size_t>(size), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
           first, second, third, uuid[8], uuid[9], uuid[10], uuid[11], uuid[12], uuid[13], uuid[14],
           uuid[15]);
  return 0;
}

}  // extern "C"
