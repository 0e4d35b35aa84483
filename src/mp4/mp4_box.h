// Box header sizes shared by the box writers of src/mp4. Internal.
#ifndef RINGREC_MP4_BOX_H
#define RINGREC_MP4_BOX_H

const unsigned int kHdr = 8;      // box size + type
const unsigned int kFull = 12;    // box header + version and flags
const unsigned int kVisual = 78;  // visual sample entry body
const unsigned int kPasp = 16;    // pixel aspect box after avcC on 960/944 x 1080/1088

#endif
