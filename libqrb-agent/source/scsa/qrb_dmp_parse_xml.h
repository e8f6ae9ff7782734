// Reads the two XML documents of a content package with libxml2's streaming text reader over
// the text in memory: the table of contents, which names the descriptive-metadata document, and
// that document, which describes the package's contents.
//
// Elements are matched by local name, whatever their namespace prefix. Trailing NUL bytes (the
// extractor's terminators) are dropped before parsing. The walk is the format's reader loop as
// written: on an element start whose text is wanted it reads one more node and takes that
// node's value, so an empty element (<X/>) takes whatever follows it, and a block that is an
// empty element reads on to the next end element of its name. The reader never touches the network,
// loads no external DTD or entity and expands no entity: a reference stays a reference, its
// text is not read. Texts above kMaxXmlBytes are not parsed.
//
// Holds no state between calls; one instance may serve several threads.
#ifndef QRB_DMP_PARSE_XML_H
#define QRB_DMP_PARSE_XML_H

#include "qrb_dmp_metadata.h"

#include <cstddef>
#include <string>
#include <vector>

struct _xmlTextReader;

class CQRBDmpParseXml {
public:
    // The extractor hands over documents of at most four megabytes; twice that is refused here
    // whatever the source.
    static constexpr size_t kMaxXmlBytes = 8u << 20;

    // The descriptive-metadata path that the table of contents names, with every ":" written
    // as "%3A". 1 on success (a document without that element succeeds with an empty path), 0
    // when the reader fails before the element (an empty text included) or cannot be made.
    int ParseDMPTableOfContents(std::string xml, std::string& descriptive);

    // As above, then, without a leading "/", looks for the path inside the names of files (a
    // substring match, from the first name on) and sets index to the first name that holds it:
    // an empty path (a table without the element) is held by the first name. When none holds
    // it, index keeps its value and the result is still 1.
    int ParseDMPTableOfContents(std::string xml, std::vector<std::string> files, int& index);

    // Fills meta from a descriptive-metadata document: the common texts of "ContentMetadata",
    // one picture per "RequiredImages" block and per "Chapter", one rating per "Rating".
    // 0 when the document was read to its end, and also when no reader could be made (a text
    // above kMaxXmlBytes; the record is then untouched); 1 when the reader stopped on an error
    // (an empty text included), keeping what was filled before it.
    int ParseDMPMetaData(std::string xml, _stDMPMETADATA& meta);

private:
    // Each handler is called on an element start and reads on; it answers the result of its
    // last read (1 more to come, 0 end of document, -1 error).
    int m_processTableOfContentsNode(_xmlTextReader* reader, std::string& path, bool& found);
    int m_processMateDataNode(_xmlTextReader* reader, _stDMPMETADATA& meta);
    int m_processCommonMetaData(_xmlTextReader* reader, _stDMPMetadata_common& common);
    int m_processRequiredImageData(_xmlTextReader* reader,
                                   std::vector<_stDMPMetadata_image>& images);
    int m_processChapterImageData(_xmlTextReader* reader,
                                  std::vector<_stDMPMetadata_image>& images);
    int m_processRatingData(_xmlTextReader* reader, std::vector<_stDMPMetadata_rating>& ratings);

    // Reads the five picture fields up to the end element named end.
    int m_ReadImage(_xmlTextReader* reader, const char* end, _stDMPMetadata_image& image);
    int m_ParseTableOfContents(std::string& xml, std::string& descriptive);
};

#endif
