#ifndef VUNKCORE_MODEL_H
#define VUNKCORE_MODEL_H

/** @file What the machine's maker declares of it. */

#include <vunkcore/types.h>

/**
 * The model file, a pair file. It says what the machine is meant for, not what happens to be attached. A missing file,
 * a missing key and any value but "yes" mean no.
 */
#define VUNKC_MODEL_FILE "/usr/zevo/etc/model.conf"

VUNKC_BEGIN_DECLS

/** @return 1 when the model file's key "support_raid" is "yes", otherwise 0. Sets no error. */
VUNKC_API int VUNKCSupportRAID(void);

VUNKC_END_DECLS

#endif
