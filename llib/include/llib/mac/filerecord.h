/* FSSpec: the desktop system's older way of naming a file, a record shared by the utility
   layer's conversions and the platform's file calls. An item is named by the volume it is on,
   the catalogue id of the folder holding it and its name (at most 63 bytes, in the system
   encoding, preceded by its length). Usable from C and C++. */
#ifndef LLIB_MAC_FILERECORD_H
#define LLIB_MAC_FILERECORD_H

#include <stdint.h>

typedef struct FSSpec {
    int16_t vRefNum;        /* the volume */
    int32_t parID;          /* the catalogue id of the folder that holds the item */
    unsigned char name[64]; /* length byte, then the name */
} FSSpec;

#endif
