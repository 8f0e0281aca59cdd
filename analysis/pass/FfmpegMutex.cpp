#include "FfmpegMutex.h"

QMutex ffmpegMutex;
