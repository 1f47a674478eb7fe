/* Builds a small 24-bit page, mirrors it with Quarvel and writes both as
 * .bmp files: the C API from allocation to GlobalFree. */
#include <quarvel/quarvel.h>

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

static int write_bmp(const char *path, HGLOBAL page) {
    const BITMAPINFOHEADER *h = (const BITMAPINFOHEADER *)GlobalLock(page);
    size_t size = GlobalSize(page);
    FILE *f = fopen(path, "wb");
    if (h == NULL || f == NULL) return -1;
    /* BITMAPFILEHEADER: "BM", file size, two reserved words, pixel offset. */
    unsigned char fh[14] = {'B', 'M'};
    unsigned file_size = (unsigned)(14 + size), offset = 14 + 40;
    memcpy(fh + 2, &file_size, 4);
    memcpy(fh + 10, &offset, 4);
    fwrite(fh, 1, 14, f);
    fwrite(h, 1, size, f);
    fclose(f);
    GlobalUnlock(page);
    return 0;
}

int main(int argc, char **argv) {
    const char *dir = argc > 1 ? argv[1] : ".";
    const int width = 240, height = 160, stride = (width * 24 + 31) / 32 * 4;
    mkdir(dir, 0755);

    HGLOBAL page = GlobalAlloc(GHND, 40 + (SIZE_T)stride * height);
    BITMAPINFOHEADER *h = (BITMAPINFOHEADER *)GlobalLock(page);
    h->biSize = 40;
    h->biWidth = width;
    h->biHeight = height;
    h->biPlanes = 1;
    h->biBitCount = 24;
    h->biSizeImage = (DWORD)(stride * height);
    /* A white sheet with a red bar along the left edge and a blue diagonal. */
    BYTE *rows = (BYTE *)(h + 1);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            BYTE *p = rows + y * stride + 3 * x;
            p[0] = p[1] = p[2] = 255;
            if (x < 30) p[0] = p[1] = 0;
            if (x / 2 == y / 2 || x / 2 == y / 2 + 1) p[1] = p[2] = 0;
        }
    }
    GlobalUnlock(page);

    HGLOBAL mirrored = Mirror(page);
    if (mirrored == NULL) {
        fprintf(stderr, "mirror_demo: Mirror refused the page\n");
        return 1;
    }
    char path[4096];
    snprintf(path, sizeof path, "%s/page.bmp", dir);
    write_bmp(path, page);
    snprintf(path, sizeof path, "%s/mirrored.bmp", dir);
    write_bmp(path, mirrored);
    printf("mirror_demo: wrote %s/page.bmp and %s/mirrored.bmp (%dx%d, 24 bits)\n", dir, dir, width, height);
    GlobalFree(mirrored);
    GlobalFree(page);
    return 0;
}
