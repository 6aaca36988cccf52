/* The public header must compile as plain C99 (this file is built with the C
 * compiler); its _Static_asserts hold the record layouts. */
#include "tessalo.h"

int tslHeaderCheckC(void) {
    const bool ok = true;
    return (int)(sizeof(TessaloMediaInfo) + sizeof(EditRange) + sizeof(EditOffset)) + (ok ? kHostEventCutDone : 0);
}
