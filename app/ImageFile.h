#pragma once

class QImage;
class QString;

namespace Utils {

// Writes `image` to `fileName` in the format its suffix names (lower-cased, as the image
// writer deduces it from a file name), at the writer's default quality. The bytes go to a
// temporary file beside the target that replaces it only once complete, so a failed write
// (null image, unknown suffix, missing folder, full disk) leaves an existing file as it was
// and no temporary file behind. Returns true when the file was written.
// Reentrant: any thread, as long as no two calls write the same file at once.
bool saveImage(const QImage& image, const QString& fileName);

} // namespace Utils
