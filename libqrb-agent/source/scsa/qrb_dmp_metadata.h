// The records of a content package's descriptive metadata, as the DMP parser fills them and the
// DMP data store keeps them: plain copyable values that own everything in them.
#ifndef QRB_DMP_METADATA_H
#define QRB_DMP_METADATA_H

#include <string>
#include <vector>

// One picture: the poster of a content or one chapter's picture.
struct _stDMPMetadata_image {
    int nWidth = 0;                 // "Width"
    int nHeight = 0;                // "Height"
    std::string strEncoding;        // "Encoding"
    std::string strTrackReference;  // "TrackReference": the picture inside the package
    std::string strLocation;        // "Location": its path
};

// One rating, one text per child element of "Rating".
struct _stDMPMetadata_rating {
    std::string strCountry;       // "country"
    std::string strSystem;        // "System"
    std::string strValue;         // "Value"
    std::string strDescription;   // "Description"
    std::string strAdultContent;  // "AdultContent"
};

// The texts of "ContentMetadata", in the order of its elements.
struct _stDMPMetadata_common {
    std::string strContentID;              // "ContentID"
    std::string strMediaProfile;           // "DECEMediaProfile"
    std::string strRunLength;              // "RunLength"
    std::string strPublisher;              // "Publisher"
    std::string strTitleDisplay19;         // "TitleDisplay19"
    std::string strTitleDisplay60;         // "TitleDisplay60"
    std::string strTitleDisplayUnlimited;  // "TitleDisplayUnlimited"
    std::string strTitleDisplaySort;       // "TitleDisplaySort"
    std::string strSummary190;             // "Summary190"
    std::string strSummary400;             // "Summary400"
    std::string strSummary4000;            // "Summary4000"
    std::string strDescriptionLanguage;    // "DescriptionLanguage"
};

// One content of a package.
struct _stDMPMETADATA {
    std::string strFilePath;  // the package's path; the parser leaves it alone
    _stDMPMetadata_common common;
    std::vector<_stDMPMetadata_image> images;  // required pictures and chapters, in document order
    std::vector<_stDMPMetadata_rating> ratings;
};

#endif
