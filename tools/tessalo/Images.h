#pragma once
// Pictures as the program handles them: 8-bit RGB, top row first.
#include <cstdint>
#include <string>
#include <vector>

namespace tslcli {

struct Image {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;  // width * height * 3, rows top to bottom
};

// The library's 24-bit form: blue, green, red, bottom row first, no padding.
// Throws std::runtime_error when the block does not hold width x height pixels.
Image fromBottomUpBgr(const std::vector<uint8_t>& bgr, int width, int height);

// The picture turned clockwise by `degrees` (0, 90, 180 or 270; any other
// value gives it back unchanged): how a stream's display rotation makes it upright.
Image rotateClockwise(const Image& source, int degrees);

// Area-averaged reduction to `width` pixels across, height in proportion
// (at least 1). Never enlarges.
Image shrinkToWidth(const Image& source, int width);

// Throws std::runtime_error with the path and the reason.
void writePng(const std::string& path, const Image& image);

// Contact sheet geometry: cells of the thumbnail plus a label band, with a
// margin around and between cells. Kept public so that its size is predictable.
struct SheetLayout {
    int columns = 0;
    int rows = 0;
    int cellWidth = 0;
    int cellHeight = 0;  // thumbnail height + label band
    int width = 0;
    int height = 0;
};
constexpr int kSheetMargin = 4;
constexpr int kLabelBand = 14;
SheetLayout sheetLayout(int count, int columns, int thumbWidth, int thumbHeight);

// Thumbnails in reading order, each with its label printed under it.
Image contactSheet(const std::vector<Image>& thumbs, const std::vector<std::string>& labels, int columns);

// Prints `text` (digits, ':', '.', 'm', 's', '-', space) at x, y in a 5x7 font,
// each dot `scale` pixels square.
void drawLabel(Image& image, int x, int y, const std::string& text, uint8_t shade, int scale = 1);
int labelWidth(const std::string& text, int scale = 1);

}  // namespace tslcli
