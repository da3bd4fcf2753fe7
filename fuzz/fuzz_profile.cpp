// Fuzz target: device profiles as `kltce run` and `kltce check` read them, installed as the host's
// state.
//
// Input: the profile's JSON text (any bytes).
#include <cstdint>

#include "fuzz/fuzz_input.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/profile.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kltce_fuzz::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const kltce::JsonResult json = kltce::parseJson(kltce_fuzz::asText(data, size));
  if (!json.ok()) return 0;
  const kltce::ProfileResult profile = kltce::parseProfile(json.value);
  if (profile.ok()) kltce::applyProfile(profile.profile);
  return 0;
}
