/* The public header must compile as plain C99 (this file is built with the C
 * compiler); its _Static_asserts hold the record layouts. */
#include "tessalo.h"

int tslHeaderCheckC(void) {
    TessaloMediaInfo info = {0};
    EditRange range = {0, 1000};
    EditOffset offset = {0, 0};
    bool ok = true;
    (void)offset;
    return (int)sizeof(info) + (int)sizeof(range) + (ok ? kHostEventCutDone : 0);
}
