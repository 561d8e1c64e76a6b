#ifndef VUNKCORE_VUNKCORE_H
#define VUNKCORE_VUNKCORE_H

/** @file The whole core library. Start with types.h, which states the rules that hold everywhere. */

#include <vunkcore/error.h>
#include <vunkcore/file.h>
#include <vunkcore/hash.h>
#include <vunkcore/list.h>
#include <vunkcore/lock_file.h>
#include <vunkcore/model.h>
#include <vunkcore/pair_file.h>
#include <vunkcore/pid_file.h>
#include <vunkcore/process.h>
#include <vunkcore/section_file.h>
#include <vunkcore/text.h>
#include <vunkcore/types.h>

#endif
