#include <android-base/parseint.h>
#include <android-base/properties.h>
#include <android/api-level.h>

extern "C" int android_get_device_api_level(void) {
    int level = -1;
    if (!android::base::ParseInt(android::base::GetProperty("ro.build.version.sdk", ""), &level, 1)) return -1;
    return level;
}
