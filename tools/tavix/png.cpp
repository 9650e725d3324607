#include "png.h"

#include <turbojpeg.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

constexpr unsigned long FourCC(const char (&code)[5]) {
    return static_cast<unsigned long>(static_cast<unsigned char>(code[0])) << 24 |
           static_cast<unsigned long>(static_cast<unsigned char>(code[1])) << 16 |
           static_cast<unsigned long>(static_cast<unsigned char>(code[2])) << 8 |
           static_cast<unsigned long>(static_cast<unsigned char>(code[3]));
}

uint8_t Clamp(int value) {
    return static_cast<uint8_t>(std::min(255, std::max(0, value)));
}

void YUVToRGB(int y, int u, int v, uint8_t* rgb) {
    const int c = 298 * (y - 16), d = u - 128, e = v - 128;
    rgb[0] = Clamp((c + 409 * e + 128) >> 8);
    rgb[1] = Clamp((c - 100 * d - 208 * e + 128) >> 8);
    rgb[2] = Clamp((c + 516 * d + 128) >> 8);
}

void PutBigEndian(std::vector<uint8_t>& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

void PutChunk(std::vector<uint8_t>& out, const char* type, const std::vector<uint8_t>& data) {
    PutBigEndian(out, static_cast<uint32_t>(data.size()));
    const size_t start = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), data.begin(), data.end());
    PutBigEndian(out, static_cast<uint32_t>(
                          crc32(0, out.data() + start, static_cast<uInt>(out.size() - start))));
}

// Where red, green and blue sit in a pixel of each packed RGB format (ARGB and 24RG are the
// numbers 32 and 24, as the library delivers them).
struct PackedRGB {
    unsigned long format;
    unsigned bytes, red, green, blue;
};
const PackedRGB kPackedRGB[] = {
    {FourCC("BGRA"), 4, 2, 1, 0}, {0x20, 4, 1, 2, 3},           {FourCC("ARGB"), 4, 1, 2, 3},
    {FourCC("RGBA"), 4, 0, 1, 2}, {FourCC("ABGR"), 4, 3, 2, 1}, {0x18, 3, 0, 1, 2},
    {FourCC("24BG"), 3, 2, 1, 0},
};

const PackedRGB* FindPackedRGB(unsigned long format) {
    for (const PackedRGB& packed : kPackedRGB)
        if (packed.format == format)
            return &packed;
    return nullptr;
}

} // namespace

bool ConvertsToRGB(unsigned long format) {
    return format == 0 || FindPackedRGB(format) != nullptr || format == FourCC("2vuy") ||
           format == FourCC("yuvs") || format == FourCC("420v") || format == FourCC("y420");
}

bool ConvertToRGB(const CapturedFrame& frame, std::vector<uint8_t>& rgb) {
    const unsigned long w = frame.width, h = frame.height, row = frame.bytesPerRow;
    if (w == 0 || h == 0)
        return false;
    rgb.assign(w * h * 3, 0);
    const uint8_t* p = frame.pixels.data();
    const size_t size = frame.pixels.size();
    const unsigned long format = frame.pixelFormat;
    if (format == FourCC("2vuy") || format == FourCC("yuvs")) {
        if (row < w * 2 || size < row * h)
            return false;
        const bool uyvy = format == FourCC("2vuy");
        for (unsigned long y = 0; y < h; ++y)
            for (unsigned long x = 0; x < w; x += 2) {
                const uint8_t* pair = p + y * row + x * 2;
                const int u = uyvy ? pair[0] : pair[1], y0 = uyvy ? pair[1] : pair[0];
                const int v = uyvy ? pair[2] : pair[3], y1 = uyvy ? pair[3] : pair[2];
                YUVToRGB(y0, u, v, &rgb[(y * w + x) * 3]);
                if (x + 1 < w)
                    YUVToRGB(y1, u, v, &rgb[(y * w + x + 1) * 3]);
            }
        return true;
    }
    if (const PackedRGB* packed = FindPackedRGB(format)) {
        if (row < w * packed->bytes || size < row * h)
            return false;
        for (unsigned long y = 0; y < h; ++y)
            for (unsigned long x = 0; x < w; ++x) {
                const uint8_t* px = p + y * row + x * packed->bytes;
                uint8_t* out = &rgb[(y * w + x) * 3];
                out[0] = px[packed->red];
                out[1] = px[packed->green];
                out[2] = px[packed->blue];
            }
        return true;
    }
    if (format == FourCC("420v") || format == FourCC("y420")) {
        // Planes follow each other: luma rows of bytesPerRow, then chroma at half size.
        const unsigned long chromaRow = (row + 1) / 2, chromaHeight = (h + 1) / 2;
        const bool biPlanar = format == FourCC("420v");
        const size_t lumaSize = row * h;
        const size_t needed =
            lumaSize + (biPlanar ? row * chromaHeight : 2 * chromaRow * chromaHeight);
        if (row < w || size < needed)
            return false;
        for (unsigned long y = 0; y < h; ++y)
            for (unsigned long x = 0; x < w; ++x) {
                int u, v;
                if (biPlanar) {
                    const uint8_t* uv = p + lumaSize + (y / 2) * row + (x / 2) * 2;
                    u = uv[0];
                    v = uv[1];
                } else {
                    u = p[lumaSize + (y / 2) * chromaRow + x / 2];
                    v = p[lumaSize + chromaRow * chromaHeight + (y / 2) * chromaRow + x / 2];
                }
                YUVToRGB(p[y * row + x], u, v, &rgb[(y * w + x) * 3]);
            }
        return true;
    }
    return false;
}

bool WritePNG(const std::string& path, const std::vector<uint8_t>& rgb, unsigned long width,
              unsigned long height) {
    std::vector<uint8_t> raw;
    raw.reserve((width * 3 + 1) * height);
    for (unsigned long y = 0; y < height; ++y) {
        raw.push_back(0); // no row filter
        raw.insert(raw.end(), rgb.begin() + y * width * 3, rgb.begin() + (y + 1) * width * 3);
    }
    uLongf compressedSize = compressBound(static_cast<uLong>(raw.size()));
    std::vector<uint8_t> compressed(compressedSize);
    if (compress2(compressed.data(), &compressedSize, raw.data(), static_cast<uLong>(raw.size()),
                  6) != Z_OK)
        return false;
    compressed.resize(compressedSize);

    std::vector<uint8_t> file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    std::vector<uint8_t> header;
    PutBigEndian(header, static_cast<uint32_t>(width));
    PutBigEndian(header, static_cast<uint32_t>(height));
    header.insert(header.end(), {8, 2, 0, 0, 0}); // 8-bit RGB, deflate, no filter, no interlace
    PutChunk(file, "IHDR", header);
    PutChunk(file, "IDAT", compressed);
    PutChunk(file, "IEND", {});

    FILE* out = fopen(path.c_str(), "wb");
    if (out == nullptr)
        return false;
    const bool written = fwrite(file.data(), 1, file.size(), out) == file.size();
    return fclose(out) == 0 && written;
}

bool WriteJPEG(const std::string& path, const std::vector<uint8_t>& rgb, unsigned long width,
               unsigned long height) {
    tjhandle compressor = tjInitCompress();
    if (compressor == nullptr)
        return false;
    unsigned char* jpeg = nullptr;
    unsigned long jpegSize = 0;
    const bool compressed =
        tjCompress2(compressor, rgb.data(), static_cast<int>(width), 0, static_cast<int>(height),
                    TJPF_RGB, &jpeg, &jpegSize, TJSAMP_420, 90, 0) == 0;
    tjDestroy(compressor);
    bool written = false;
    if (compressed) {
        FILE* out = fopen(path.c_str(), "wb");
        if (out != nullptr) {
            written = fwrite(jpeg, 1, jpegSize, out) == jpegSize;
            written = fclose(out) == 0 && written;
        }
    } else {
        errno = EINVAL;
    }
    tjFree(jpeg);
    return written;
}
