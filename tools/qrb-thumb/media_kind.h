// What an input is, as far as the library's routing cares: a media type and a device type.
// The tool guesses the kind from the input's form (URL scheme, the three-field DLNA form), from
// a local file's first bytes, and from its extension, in that order of trust; -k overrides all.
#ifndef QRB_THUMB_TOOL_MEDIA_KIND_H
#define QRB_THUMB_TOOL_MEDIA_KIND_H

#include "qrb_thumbnail.h"

#include <string>

namespace qrbthumb {

enum class MediaKind { Unknown, Picture, Music, Video, Recording, Scsa, Dlna, Web, Ptp, Ra };

// The pair handed to thumbnail_request_async for a kind. Unknown has no route.
struct Route {
    qrb_item_media_type media;
    qrb_extend_dev_type dev;
};
Route RouteOf(MediaKind kind);

// The names -k accepts and the reports print ("picture", "music", ..., "ra"; "unknown").
const char* KindName(MediaKind kind);
// The kind for a -k name; Unknown for any other text.
MediaKind KindFromName(const std::string& name);

// Number of leading bytes the guess looks at: enough for a second transport-stream sync byte.
constexpr size_t kHeadBytes = 512;

// The local file an input names: the path itself, or the path of a "file://" URI. Empty when
// the input is not a local path (a network URL, a camera object, a DLNA triple).
std::string LocalPathOf(const std::string& input);

// The local path a URI names, percent-escapes decoded ("file:///a%20b.jpg" is "/a b.jpg"); a
// plain path is returned as it stands. Empty for other schemes and for a "file://" URI naming
// another host.
std::string PathOfUri(const std::string& uri);

// Up to kHeadBytes from the start of a file; empty when it cannot be read.
std::string ReadHead(const std::string& path);

// Guesses the kind of an input from its text and, for a local file, its first bytes (empty
// when the file could not be read). Magic bytes win over the extension, except where the
// extension names a package kind (recordings, SCSA) whose carrier is a generic container.
MediaKind GuessKind(const std::string& input, const std::string& head);

}  // namespace qrbthumb

#endif
