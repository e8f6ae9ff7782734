// Turns an answer into files: each raster becomes "<stem>-<slot>.png" (or ".jpg"), encoded bytes are saved
// as they came with an extension guessed from their signature. Stems come from the inputs'
// names, made safe for a file name and unique within one run.
#ifndef QRB_THUMB_TOOL_RESULT_FILES_H
#define QRB_THUMB_TOOL_RESULT_FILES_H

#include "image_writer.h"
#include "report.h"
#include "request_batch.h"

#include <cstddef>
#include <string>
#include <vector>

namespace qrbthumb {

// The base name an input's files start with: the last path segment (of the local path, the
// URL path without query, the DLNA item's path, or the camera object), with every byte other
// than letters, digits and "._+-" replaced by "_" and no leading dot. Never empty.
std::string StemOf(const std::string& input);

// StemOf for each input; a stem already taken gets "~2", "~3", ... appended.
std::vector<std::string> UniqueStems(const std::vector<std::string>& inputs);

// "jpg", "png", "gif", "bmp" or "webp" by signature; "bin" for anything else.
const char* EncodedExtension(const unsigned char* bytes, size_t size);

// Writes the answer's images into dir (rasters in the given format) and fills ok, width,
// height, frames, milliseconds, outputs and note of *outcome; a failure's note, and that of an
// answer without images, is the library's reason for it. An input counts as done only when at
// least one file was written and none failed.
void WriteAnswerFiles(const Answer& answer, ImageFormat format, const std::string& dir,
                      const std::string& stem, Outcome* outcome);

}  // namespace qrbthumb

#endif
