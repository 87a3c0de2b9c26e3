// The frame's low face: the state behind the file lock and the export context, which attaching sets up.
#ifndef ZEBCS_LINUX_ZEBSUPT_BASE_H
#define ZEBCS_LINUX_ZEBSUPT_BASE_H

#include "zebcs/frame.h"

extern void *hGFileLock;   // the process-wide file lock, a global mutex; NULL while there is none
extern KCSECInfo origECI;  // the context that the first attach ran in

#endif
