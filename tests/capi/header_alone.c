/* The C interface's header on its own, as C99: it must compile without any warning. */
#include <kltce/kltce.h>

kltce_status kltce_header_alone_c(void);
kltce_status kltce_header_alone_c(void) { return KLTCE_OK; }
