// An HTML page showing every input with its thumbnails, status, size and time: a quick way to
// look at a whole run. Images are linked relative to the page, so the page and the images can
// be moved together.
#ifndef QRB_THUMB_TOOL_CONTACT_SHEET_H
#define QRB_THUMB_TOOL_CONTACT_SHEET_H

#include "report.h"

#include <string>
#include <vector>

namespace qrbthumb {

// Text made safe inside HTML elements and quoted attributes (&, <, >, ", ').
std::string HtmlEscape(const std::string& text);

// The link from the page at sheetPath to filePath: relative to the page's folder, with every
// byte outside letters, digits, "-._~/" percent-encoded.
std::string RelativeHref(const std::string& sheetPath, const std::string& filePath);

// The whole page.
std::string RenderContactSheet(const std::vector<Outcome>& outcomes, const std::string& sheetPath);

// Renders and writes the page; false with the reason in *error when it cannot be written.
bool WriteContactSheet(const std::vector<Outcome>& outcomes, const std::string& sheetPath,
                       std::string* error);

}  // namespace qrbthumb

#endif
