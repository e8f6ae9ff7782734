// System information on a host: feature flags are read from the settings store under the key
// "system_info/<number>", so that a test or an installer can set them; a flag nobody set is
// not supported.
#include "system_info.h"

#include "vconf.h"

#include <string>

extern "C" int system_info_get_value_bool(int key, bool* value) {
    if (value == nullptr || key < 0) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    int stored = 0;
    std::string name = "system_info/" + std::to_string(key);
    if (vconf_get_int(name.c_str(), &stored) != VCONF_OK) return SYSTEM_INFO_ERROR_NOT_SUPPORTED;
    *value = stored != 0;
    return SYSTEM_INFO_ERROR_NONE;
}
