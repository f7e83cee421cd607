// libbase's lock annotations, which only clang understands: GCC builds get none, rather than a
// warning at every annotated declaration.
#pragma once

#include <android-base/thread_annotations.h>

#ifndef __clang__
#undef THREAD_ANNOTATION_ATTRIBUTE__
#define THREAD_ANNOTATION_ATTRIBUTE__(x)
#endif
