#include "demux/TableWalkCheck.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

namespace {

constexpr uint32_t fourcc(const char (&name)[5]) {
    return static_cast<uint32_t>(static_cast<uint8_t>(name[0])) << 24 |
           static_cast<uint32_t>(static_cast<uint8_t>(name[1])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(name[2])) << 8 | static_cast<uint8_t>(name[3]);
}

// Enough for any real movie box; a file with more is not vouched for.
constexpr int kMaxBoxes = 20000;
// moov, trak, mdia, minf, stbl: where the sample tables lie.
constexpr int kSampleTableDepth = 5;
// Samples of each kind held against the parser, per video stream.
constexpr size_t kUnmarkedChecked = 4;
// A sample larger than this is not read for the check: the file takes the full walk.
constexpr int32_t kMaxCheckedSample = 16 << 20;

uint64_t bigEndian(const uint8_t* bytes, int count) {
    uint64_t value = 0;
    for (int i = 0; i < count; ++i) value = value << 8 | bytes[i];
    return value;
}

struct Box {
    uint32_t type = 0;
    int64_t body = 0;  // where the contents begin
    int64_t end = 0;   // as the header says, which may lie past the file's end
};

// The header of the box at `offset` within [offset, limit); false when none
// fits or its size makes no sense. Size 0 runs to `limit`.
bool readBox(FileInput& input, int64_t offset, int64_t limit, Box* box) {
    uint8_t head[16];
    if (limit - offset < 8 || !input.readAt(offset, head, 8)) return false;
    uint64_t size = bigEndian(head, 4);
    int64_t header = 8;
    if (size == 1) {
        if (limit - offset < 16 || !input.readAt(offset + 8, head + 8, 8)) return false;
        size = bigEndian(head + 8, 8);
        header = 16;
    } else if (size == 0) {
        size = static_cast<uint64_t>(limit - offset);
    }
    if (size < static_cast<uint64_t>(header) ||
        size > static_cast<uint64_t>(std::numeric_limits<int64_t>::max() - offset))
        return false;
    box->type = static_cast<uint32_t>(bigEndian(head + 4, 4));
    box->body = offset + header;
    box->end = offset + static_cast<int64_t>(size);
    return true;
}

struct LayoutScan {
    int boxes = 0;
    int movies = 0;
    bool blocked = false;
};

bool leadsToSampleTables(uint32_t type) {
    return type == fourcc("moov") || type == fourcc("trak") || type == fourcc("mdia") || type == fourcc("minf") ||
           type == fourcc("stbl");
}

bool blocksTables(uint32_t type) {
    return type == fourcc("moof") || type == fourcc("mvex") || type == fourcc("sdtp") || type == fourcc("stps");
}

// Walks the boxes of [start, end), and into the containers on the way to the
// sample tables, as deep as they are nested in a movie box (depth 0 is the
// file). At the top a box may run past the end of a truncated file, unless
// it is the movie box.
void scanBoxes(FileInput& input, int64_t start, int64_t end, int depth, LayoutScan& scan) {
    const bool top = depth == 0;
    for (int64_t offset = start; offset < end && !scan.blocked;) {
        Box box;
        if (++scan.boxes > kMaxBoxes || !readBox(input, offset, end, &box)) {
            scan.blocked = true;
            return;
        }
        const bool cut = box.end > end;
        if (blocksTables(box.type) || (cut && (!top || box.type == fourcc("moov")))) {
            scan.blocked = true;
            return;
        }
        if (top && box.type == fourcc("moov")) ++scan.movies;
        if (leadsToSampleTables(box.type) && depth < kSampleTableDepth)
            scanBoxes(input, box.body, box.end, depth + 1, scan);
        if (cut) return;
        offset = box.end;
    }
}

// The key mark libavformat gives a packet of `data` when its parser runs:
// the parser's when it has one, else the table's (`tableKey`).
bool parsedKey(AVCodecParserContext* parser, AVCodecContext* codec, const std::vector<uint8_t>& data, int size,
               bool tableKey) {
    uint8_t* out = nullptr;
    int outSize = 0;
    av_parser_parse2(parser, codec, &out, &outSize, data.data(), size, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    if (parser->key_frame == 1) return true;
    if (parser->key_frame != -1) return false;
    return parser->pict_type == AV_PICTURE_TYPE_I || (parser->pict_type == AV_PICTURE_TYPE_NONE && tableKey);
}

// Index entries to check, in file order: the first, middle and last sync
// sample, and the largest unmarked samples. Only samples that lie wholly in
// the file: the walk finds no other.
std::vector<const AVIndexEntry*> samplesToCheck(const AVStream* stream, int64_t fileSize) {
    std::vector<const AVIndexEntry*> sync, unmarked;
    const int count = avformat_index_get_entries_count(stream);
    for (int i = 0; i < count; ++i) {
        const AVIndexEntry* entry = avformat_index_get_entry(const_cast<AVStream*>(stream), i);
        if (!entry || entry->pos < 0 || entry->size <= 0 || entry->pos > fileSize - entry->size) continue;
        (entry->flags & AVINDEX_KEYFRAME ? sync : unmarked).push_back(entry);
    }
    std::vector<const AVIndexEntry*> chosen;
    if (!sync.empty()) {
        chosen.push_back(sync.front());
        chosen.push_back(sync[sync.size() / 2]);
        chosen.push_back(sync.back());
    }
    const auto largest = unmarked.begin() + static_cast<std::ptrdiff_t>(std::min(unmarked.size(), kUnmarkedChecked));
    std::partial_sort(unmarked.begin(), largest, unmarked.end(),
                      [](const AVIndexEntry* a, const AVIndexEntry* b) { return a->size > b->size; });
    for (auto it = unmarked.begin(); it != largest; ++it) chosen.push_back(*it);
    std::sort(chosen.begin(), chosen.end(), [](const AVIndexEntry* a, const AVIndexEntry* b) { return a->pos < b->pos; });
    chosen.erase(std::unique(chosen.begin(), chosen.end()), chosen.end());
    return chosen;
}

bool keyMarksAgree(FileInput& input, const AVStream* stream) {
    ParserHolder parser(av_parser_init(stream->codecpar->codec_id));
    CodecContextHolder codec(avcodec_alloc_context3(nullptr));
    if (!parser || !codec || avcodec_parameters_to_context(codec.get(), stream->codecpar) < 0) return false;
    // As libavformat sets its parser up for samples that are whole pictures.
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    std::vector<uint8_t> data;
    for (const AVIndexEntry* entry : samplesToCheck(stream, input.size())) {
        if (entry->size > kMaxCheckedSample) return false;
        data.assign(static_cast<size_t>(entry->size) + AV_INPUT_BUFFER_PADDING_SIZE, 0);
        if (!input.readAt(entry->pos, data.data(), static_cast<uint32_t>(entry->size))) return false;
        const bool tableKey = (entry->flags & AVINDEX_KEYFRAME) != 0;
        if (parsedKey(parser.get(), codec.get(), data, entry->size, tableKey) != tableKey) return false;
    }
    return true;
}

}  // namespace

bool isMovFamily(const AVInputFormat* format) {
    return format && format->name && std::strcmp(format->name, "mov,mp4,m4a,3gp,3g2,mj2") == 0;
}

bool layoutAllowsTables(FileInput& input) {
    LayoutScan scan;
    scanBoxes(input, 0, input.size(), 0, scan);
    return !scan.blocked && scan.movies == 1;
}

bool streamsAllowTables(FileInput& input, const AVFormatContext* context) {
    for (unsigned int i = 0; i < context->nb_streams; ++i) {
        const AVStream* stream = context->streams[i];
        const AVCodecParameters* parameters = stream->codecpar;
        // A cover picture is one packet held in memory, never a sample read from the file.
        if (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) continue;
        switch (parameters->codec_type) {
        case AVMEDIA_TYPE_VIDEO:
            if (parameters->codec_id != AV_CODEC_ID_H264 || !keyMarksAgree(input, stream)) return false;
            break;
        case AVMEDIA_TYPE_AUDIO:
            if (parameters->codec_id != AV_CODEC_ID_AAC) return false;
            break;
        case AVMEDIA_TYPE_SUBTITLE:
            if (parameters->codec_id != AV_CODEC_ID_MOV_TEXT) return false;
            break;
        default:
            break;  // the scan discards streams of other kinds: the walk reads none of their samples
        }
    }
    return true;
}
