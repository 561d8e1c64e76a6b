#ifndef UTILS_APPLY_VOLUME_H
#define UTILS_APPLY_VOLUME_H

#include "utils/apply/section.h"

#include <zevostorage/space.h>

// Applies [volume]: the number of writeback threads of every mounted Btrfs volume that lies on SSDs alone. 0 or -1.
int TuneApplyVolumeSection(const SectionPlace &place);

// Gives those volumes "auto", one thread for eight processors, or a number of threads, cut down to the number of processors.
// -1 at the first volume that fails. A volume whose space cannot be found is logged and passed over.
int TuneApplyProfileVolumeWriteBackThread(const char *szValue, ParameterWriter &writer);

// The same for the volume of one space: 0 when it is written, or is left alone as it has a rotating disk.
int TuneApplyProfileVolumeWriteBackThreadBySpaceInfo(const ZEVOSPACEINFO *pSpace, int nThreadMax,
                                                     ParameterWriter &writer);

#endif
