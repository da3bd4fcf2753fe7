// The C interface's header on its own, as C++20: it must compile without any warning.
#include <kltce/kltce.h>

kltce_status kltceHeaderAloneCxx();
kltce_status kltceHeaderAloneCxx() { return KLTCE_OK; }
