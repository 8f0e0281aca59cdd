#pragma once

#include <QMutex>

// Serialises opening and closing of videos across all analysis passes; reading and decoding
// run without it. Constant-initialised, so it is usable during static initialisation too.
extern QMutex ffmpegMutex;
