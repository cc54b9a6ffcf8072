// Placeholder host; grows with the library.
#include <cstdio>

#include "qdquick/qdquick.h"

int main() {
    quickevcb_t cb{};
    initQdQuick(&cb);
    std::printf("manage platform: %s\n", manageplatinfo.status);
    return 0;
}
