// Host subset of bionic's API-level query.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// The device's API level: "ro.build.version.sdk" as a number, or -1 when it is unknown.
int android_get_device_api_level(void);

#ifdef __cplusplus
}
#endif
