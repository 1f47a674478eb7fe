/* Win32 types and global-memory functions that cross Quarvel's interface.
 *
 * On Windows this is <windows.h>. Elsewhere Quarvel brings its own
 * stand-ins with Win32's layout, signatures and meaning: a page is a packed
 * DIB held in a global-memory block, and a caller allocates, locks, unlocks,
 * sizes and frees such blocks with the Global* functions below. Handles are
 * validated on every call: a null, unknown or freed handle gives NULL from
 * GlobalLock, 0 from GlobalSize, and never a crash.
 */
#ifndef QUARVEL_WIN32_H
#define QUARVEL_WIN32_H

#if defined(_WIN32)
#include <windows.h>
#else

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(QUARVEL_BUILDING)
#define QUARVEL_GLOBAL_API __attribute__((visibility("default")))
#else
#define QUARVEL_GLOBAL_API
#endif

typedef void *HGLOBAL;
typedef int32_t BOOL;
typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef unsigned int UINT;
typedef size_t SIZE_T;
typedef void *LPVOID;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

typedef struct tagRECT {
    LONG left;
    LONG top;
    LONG right;
    LONG bottom;
} RECT, *LPRECT;

typedef struct tagBITMAPINFOHEADER {
    DWORD biSize;
    LONG biWidth;
    LONG biHeight;
    WORD biPlanes;
    WORD biBitCount;
    DWORD biCompression;
    DWORD biSizeImage;
    LONG biXPelsPerMeter;
    LONG biYPelsPerMeter;
    DWORD biClrUsed;
    DWORD biClrImportant;
} BITMAPINFOHEADER, *LPBITMAPINFOHEADER;

typedef struct tagRGBQUAD {
    BYTE rgbBlue;
    BYTE rgbGreen;
    BYTE rgbRed;
    BYTE rgbReserved;
} RGBQUAD;

#define BI_RGB 0L

#define GMEM_FIXED 0x0000
#define GMEM_MOVEABLE 0x0002
#define GMEM_ZEROINIT 0x0040
#define GHND (GMEM_MOVEABLE | GMEM_ZEROINIT)
#define GPTR (GMEM_FIXED | GMEM_ZEROINIT)

/* Allocates a block of dwBytes bytes. Every block is zero-filled, whatever
 * the flags (Win32 zero-fills only with GMEM_ZEROINIT; zeroing always costs
 * nothing for fresh pages and keeps uninitialised bytes out of results).
 * Returns NULL when the memory cannot be had. */
QUARVEL_GLOBAL_API HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes);
/* Locks the block and returns its first byte; NULL for a null, unknown or
 * freed handle and for a block of 0 bytes. Locks nest. */
QUARVEL_GLOBAL_API LPVOID GlobalLock(HGLOBAL hMem);
/* Releases one lock. Returns nonzero while the block stays locked, 0 once it
 * is unlocked or when the handle is not a live block. */
QUARVEL_GLOBAL_API BOOL GlobalUnlock(HGLOBAL hMem);
/* The size the block was allocated with; 0 for a handle that is not live. */
QUARVEL_GLOBAL_API SIZE_T GlobalSize(HGLOBAL hMem);
/* Frees the block. Returns NULL on success and hMem itself when the handle
 * is not a live block. GlobalFree(NULL) returns NULL. */
QUARVEL_GLOBAL_API HGLOBAL GlobalFree(HGLOBAL hMem);

#ifdef __cplusplus
}
#endif

#endif /* _WIN32 */
#endif /* QUARVEL_WIN32_H */
