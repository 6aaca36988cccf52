#include "Images.h"

#include <png.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>

namespace tslcli {

Image fromBottomUpBgr(const std::vector<uint8_t>& bgr, int width, int height) {
    const size_t row = static_cast<size_t>(width) * 3;
    if (width <= 0 || height <= 0 || bgr.size() != row * static_cast<size_t>(height))
        throw std::runtime_error("picture of " + std::to_string(bgr.size()) + " bytes does not hold " +
                                 std::to_string(width) + "x" + std::to_string(height) + " pixels of 24 bits");
    Image image{width, height, std::vector<uint8_t>(bgr.size())};
    for (int y = 0; y < height; ++y) {
        const uint8_t* in = bgr.data() + static_cast<size_t>(height - 1 - y) * row;
        uint8_t* out = image.rgb.data() + static_cast<size_t>(y) * row;
        for (int x = 0; x < width; ++x) {
            out[3 * x] = in[3 * x + 2];
            out[3 * x + 1] = in[3 * x + 1];
            out[3 * x + 2] = in[3 * x];
        }
    }
    return image;
}

Image rotateClockwise(const Image& source, int degrees) {
    if (degrees != 90 && degrees != 180 && degrees != 270) return source;
    const bool quarter = degrees != 180;
    Image out{quarter ? source.height : source.width, quarter ? source.width : source.height,
              std::vector<uint8_t>(source.rgb.size())};
    for (int y = 0; y < source.height; ++y)
        for (int x = 0; x < source.width; ++x) {
            // Where the pixel at x, y of the stored picture lands.
            const int tx = degrees == 90 ? source.height - 1 - y : degrees == 180 ? source.width - 1 - x : y;
            const int ty = degrees == 90 ? x : degrees == 180 ? source.height - 1 - y : source.width - 1 - x;
            std::memcpy(&out.rgb[(static_cast<size_t>(ty) * out.width + tx) * 3],
                        &source.rgb[(static_cast<size_t>(y) * source.width + x) * 3], 3);
        }
    return out;
}

Image shrinkToWidth(const Image& source, int width) {
    if (width >= source.width || width <= 0) return source;
    const int height = std::max(1, static_cast<int>(static_cast<int64_t>(source.height) * width / source.width));
    Image out{width, height, std::vector<uint8_t>(static_cast<size_t>(width) * height * 3)};
    for (int y = 0; y < height; ++y) {
        const int y0 = static_cast<int>(static_cast<int64_t>(y) * source.height / height);
        const int y1 = std::max(y0 + 1, static_cast<int>(static_cast<int64_t>(y + 1) * source.height / height));
        for (int x = 0; x < width; ++x) {
            const int x0 = static_cast<int>(static_cast<int64_t>(x) * source.width / width);
            const int x1 = std::max(x0 + 1, static_cast<int>(static_cast<int64_t>(x + 1) * source.width / width));
            unsigned sum[3] = {0, 0, 0};
            for (int sy = y0; sy < y1; ++sy)
                for (int sx = x0; sx < x1; ++sx)
                    for (int c = 0; c < 3; ++c)
                        sum[c] += source.rgb[(static_cast<size_t>(sy) * source.width + sx) * 3 + c];
            const unsigned n = static_cast<unsigned>((y1 - y0) * (x1 - x0));
            for (int c = 0; c < 3; ++c)
                out.rgb[(static_cast<size_t>(y) * width + x) * 3 + c] = static_cast<uint8_t>((sum[c] + n / 2) / n);
        }
    }
    return out;
}

namespace {

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

void pngWarning(png_structp, png_const_charp) {}

// libpng reports errors by longjmp; this function holds nothing that needs a
// destructor, so the jump skips no clean-up.
bool encodePng(FILE* file, const Image& image, char* message, size_t messageSize) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, pngWarning);
    if (!png) {
        std::snprintf(message, messageSize, "out of memory");
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (!info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::snprintf(message, messageSize, "the PNG encoder failed");
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width), static_cast<png_uint_32>(image.height), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, 3);  // pictures of video: nearly as small as level 9 and much faster
    png_write_info(png, info);
    for (int y = 0; y < image.height; ++y)
        png_write_row(png, image.rgb.data() + static_cast<size_t>(y) * image.width * 3);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

void writePng(const std::string& path, const Image& image) {
    std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
    if (!file) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    char message[128] = "";
    if (!encodePng(file.get(), image, message, sizeof message))
        throw std::runtime_error("cannot write " + path + ": " + message);
    if (std::fflush(file.get()) != 0 || std::ferror(file.get()))
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
}

SheetLayout sheetLayout(int count, int columns, int thumbWidth, int thumbHeight) {
    SheetLayout l;
    l.columns = std::max(1, std::min(columns, std::max(count, 1)));
    l.rows = std::max(1, (count + l.columns - 1) / l.columns);
    l.cellWidth = thumbWidth;
    l.cellHeight = thumbHeight + kLabelBand;
    l.width = kSheetMargin + l.columns * (l.cellWidth + kSheetMargin);
    l.height = kSheetMargin + l.rows * (l.cellHeight + kSheetMargin);
    return l;
}

Image contactSheet(const std::vector<Image>& thumbs, const std::vector<std::string>& labels, int columns) {
    int thumbWidth = 1, thumbHeight = 1;
    for (const Image& t : thumbs) {
        thumbWidth = std::max(thumbWidth, t.width);
        thumbHeight = std::max(thumbHeight, t.height);
    }
    const SheetLayout l = sheetLayout(static_cast<int>(thumbs.size()), columns, thumbWidth, thumbHeight);
    Image sheet{l.width, l.height, std::vector<uint8_t>(static_cast<size_t>(l.width) * l.height * 3, 32)};
    for (size_t i = 0; i < thumbs.size(); ++i) {
        const int left = kSheetMargin + static_cast<int>(i) % l.columns * (l.cellWidth + kSheetMargin);
        const int top = kSheetMargin + static_cast<int>(i) / l.columns * (l.cellHeight + kSheetMargin);
        const Image& t = thumbs[i];
        for (int y = 0; y < t.height; ++y)
            std::memcpy(&sheet.rgb[(static_cast<size_t>(top + y) * l.width + left) * 3],
                        &t.rgb[static_cast<size_t>(y) * t.width * 3], static_cast<size_t>(t.width) * 3);
        if (i < labels.size()) {
            const int x = left + std::max(0, (l.cellWidth - labelWidth(labels[i])) / 2);
            drawLabel(sheet, x, top + thumbHeight + (kLabelBand - 7) / 2, labels[i], 235);
        }
    }
    return sheet;
}

namespace {

// 5x7 glyphs, one byte a row, the low five bits from left to right.
const std::map<char, std::array<uint8_t, 7>>& glyphs() {
    static const std::map<char, std::array<uint8_t, 7>> table = {
        {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
        {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
        {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
        {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
        {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
        {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}}, {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}},
        {'m', {0x00, 0x00, 0x1A, 0x15, 0x15, 0x11, 0x11}}, {'s', {0x00, 0x00, 0x0E, 0x10, 0x0E, 0x01, 0x1E}},
        {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}}, {' ', {0, 0, 0, 0, 0, 0, 0}},
    };
    return table;
}

}  // namespace

int labelWidth(const std::string& text, int scale) {
    return text.empty() ? 0 : (static_cast<int>(text.size()) * 6 - 1) * scale;
}

void drawLabel(Image& image, int x, int y, const std::string& text, uint8_t shade, int scale) {
    for (char c : text) {
        const auto found = glyphs().find(c);
        if (found != glyphs().end())
            for (int row = 0; row < 7; ++row)
                for (int col = 0; col < 5; ++col) {
                    if (!(found->second[row] & (0x10 >> col))) continue;
                    for (int dy = 0; dy < scale; ++dy)
                        for (int dx = 0; dx < scale; ++dx) {
                            const int px = x + col * scale + dx, py = y + row * scale + dy;
                            if (px < 0 || py < 0 || px >= image.width || py >= image.height) continue;
                            uint8_t* p = &image.rgb[(static_cast<size_t>(py) * image.width + px) * 3];
                            p[0] = p[1] = p[2] = shade;
                        }
                }
        x += 6 * scale;
    }
}

}  // namespace tslcli
