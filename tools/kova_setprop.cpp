// kova-setprop: sets a system property in the host's property store, like the platform's setprop.
//   kova-setprop NAME VALUE

#include <android-base/properties.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: kova-setprop NAME VALUE\n");
        return 1;
    }
    if (!android::base::SetProperty(argv[1], argv[2])) {
        fprintf(stderr, "Failed to set property '%s' to '%s': %s\n", argv[1], argv[2], strerror(errno));
        return 1;
    }
    return 0;
}
