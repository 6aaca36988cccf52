#include "demux/AVStreamParse.h"

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <system_error>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavutil/display.h>
}

#include "base/ByteCopy.h"
#include "base/Log.h"
#include "demux/TableWalkCheck.h"

namespace {

constexpr int kMissingFile = -2;  // AVERROR(ENOENT)
constexpr int kMaxReadFailures = 50;

using FilterHolder = BitstreamFilterHolder;

std::atomic<bool> gFullWalkForced{false};

int32_t clampToInt32(int64_t value) {
    if (value > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
    if (value < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(value);
}

// Ticks per second of a time base. Video keeps the fraction; audio drops the
// remainder of the quotient.
double videoTicksPerSecond(AVRational timeBase) {
    if (timeBase.num <= 0 || timeBase.den == 0) return 0.0;
    return static_cast<double>(timeBase.den) / static_cast<double>(timeBase.num);
}

double audioTicksPerSecond(AVRational timeBase) {
    if (timeBase.num <= 0 || timeBase.den == 0) return 0.0;
    return static_cast<double>(timeBase.den / timeBase.num);
}

// Milliseconds from `base` to `value`, truncated towards zero. A stream with
// no usable time base (0 ticks per second) reports 0: the division has no
// meaning and an infinite result has no integer form. Results beyond the
// 64-bit range saturate rather than overflow.
int64_t toMilliseconds(int64_t value, int64_t base, double ticksPerSecond) {
    if (ticksPerSecond == 0.0) return 0;
    int64_t difference = 0;
    double ticks = __builtin_sub_overflow(value, base, &difference)
                       ? static_cast<double>(value) - static_cast<double>(base)
                       : static_cast<double>(difference);
    double milliseconds = std::trunc(ticks * 1000.0 / ticksPerSecond);
    constexpr double kLimit = 9.2e18;  // inside the int64 range
    if (milliseconds >= kLimit) return static_cast<int64_t>(kLimit);
    if (milliseconds <= -kLimit) return -static_cast<int64_t>(kLimit);
    return static_cast<int64_t>(milliseconds);
}

// The same conversion without truncation, for the origins of the timelines.
double exactMilliseconds(int64_t value, double ticksPerSecond) {
    return ticksPerSecond == 0.0 ? 0.0 : static_cast<double>(value) * 1000.0 / ticksPerSecond;
}

// MPEG-4 sampling frequency index; 15 (explicit frequency) for a rate the
// table does not know, which no accepted stream has.
int rateIndex(int32_t rate) {
    static const int32_t kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                     22050, 16000, 12000, 11025, 8000,  7350};
    for (int i = 0; i < static_cast<int>(sizeof(kRates) / sizeof(kRates[0])); ++i)
        if (kRates[i] == rate) return i;
    return 15;
}

// Frames per second of a video stream. A stream whose nominal rate is its
// time base (90000 for a variable-rate file with a 1/90000 time base) tells
// no rate at all; its average rate is the one a host can use.
double frameRateOf(const AVStream* stream) {
    const AVRational nominal = stream->r_frame_rate;
    const AVRational average = stream->avg_frame_rate;
    const bool nominalUsable = nominal.num != 0 && nominal.den != 0 &&
                               av_cmp_q(nominal, av_inv_q(stream->time_base)) != 0;
    if (nominalUsable) return av_q2d(nominal);
    if (average.num != 0 && average.den != 0) return av_q2d(average);
    return nominal.num != 0 && nominal.den != 0 ? av_q2d(nominal) : 0.0;
}

// Clockwise degrees, one of 0, 90, 180 and 270, from the stream's display
// matrix. FFmpeg reads the matrix as a counter-clockwise angle: a phone's
// portrait video, stored sideways and turned a quarter clockwise for display,
// reads as -90.
int32_t rotationOf(const AVStream* stream) {
    size_t size = 0;
    const uint8_t* matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (!matrix || size < 9 * sizeof(int32_t)) return 0;
    const double counterClockwise = av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix));
    if (std::isnan(counterClockwise)) return 0;
    const long quarters = std::lround(-counterClockwise / 90.0);
    return static_cast<int32_t>(((quarters % 4) + 4) % 4 * 90);
}

// The first time a timeline is met, it counts from `first`; `*origin` keeps
// that time in milliseconds, without truncation.
void anchor(TimelineBase* base, int64_t first, double ticksPerSecond, double* origin) {
    if (base->set) return;
    base->set = true;
    base->ticks = first;
    *origin = exactMilliseconds(first, ticksPerSecond);
}

// A packet as reported, with the bytes it is reported with; its times are
// left to the caller.
ParsedPacket parsedFrom(const AVPacket& packet, uint8_t* data, int32_t size) {
    ParsedPacket parsed{};
    parsed.data = data;
    parsed.size = size;
    parsed.duration = packet.duration;
    parsed.flags = static_cast<uint16_t>(packet.flags & 0xFFFF);
    parsed.pos = packet.pos;
    return parsed;
}

bool listHas(const int32_t* list, uint16_t count, int index) {
    for (uint16_t i = 0; i < count; ++i)
        if (list[i] == index) return true;
    return false;
}

}  // namespace

void setFullWalkForced(bool forced) { gFullWalkForced.store(forced); }

AVStreamParse::AVStreamParse() { resetFields(); }

AVStreamParse::~AVStreamParse() {
    extraData.reset();
    annexBExtraData.reset();
    stop();
}

void AVStreamParse::resetFields() {
    audioCount = videoCount = subtitleCount = 0;
    width = height = 0;
    firstAudio = firstVideo = firstSubtitle = -1;
    frameRate = 0.0;
    rotation = 0;
    duration = 0.0;
    failureCode = 0;
    state = kParseStateIdle;
    for (int i = 0; i < kParseTableSize; ++i) {
        channels[i] = 0xFFFF;
        sampleRates[i] = 0;
        audioList[i] = videoList[i] = subtitleList[i] = -1;
    }
    videoCodecId = audioCodecId = 0;
    audioTimeBase = videoTimeBase = AVRational{0, 0};
    hasVideo = hasAudio = hasSubtitle = false;
    extraData.reset();
    extraDataSize = 0;
    annexBExtraData.reset();
    annexBExtraDataSize = 0;
    audioBitRate = audioRate = audioChannels = videoBitRate = 0;
    videoPtsOrigin = videoDtsOrigin = audioPtsOrigin = 0;
}

int AVStreamParse::init(ParseNotify function, void* user) {
    if (!function) return 1;
    notify = function;
    notifyData = user;
    // Registration of formats and codecs is automatic since FFmpeg 4.
    avformat_network_init();
    installFFmpegLogSink();
    resetFields();
    path.reset(new (std::nothrow) char[kParsePathSize]);
    // Without the path buffer there is nothing to pair the network setup with.
    if (!path) {
        avformat_network_deinit();
        return 1;
    }
    std::memset(path.get(), 0, kParsePathSize);
    return 0;
}

int AVStreamParse::open(const char* source) {
    if (!source) {
        Log("AVStream", "AV stream source path error! StreamPath = %s\n", "(null)");
        return 1;
    }
    // The copy keeps at most 2047 bytes; FFmpeg still gets the whole path as
    // given, so a longer path opens but its copy is cut short.
    if (path) {
        std::strncpy(path.get(), source, kParsePathSize - 1);
        path[kParsePathSize - 1] = '\0';
    }
    // A second open would hand FFmpeg a context it already filled.
    closeInput();
    int result = 0;
    if (!openFromTables(source)) formatContext = openInput(source, &result);
    if (result < 0) failureCode = result;
    if (result == kMissingFile) {
        Log("AVStream", "Could not open input stream.ret=%d  stream path = %s, url is error \n", result,
            source);
        return 1;
    }
    if (result != 0) {
        Log("AVStream", "Could not open input stream.ret=%d  stream path = %s\n", result, source);
        return 1;
    }
    Log("AVStream", "%s connected.\n", source);
    state = kParseStateOpened;
    return 0;
}

// Opens an MP4 or MOV file through a FileInput when its tables can stand in
// for its payloads (TableWalkCheck.h); false leaves nothing open, and the
// caller opens the input by path. With the parsers off, a video packet's key
// mark is the sync sample table's, and nothing but the stream information
// reads a payload.
bool AVStreamParse::openFromTables(const char* source) {
    if (gFullWalkForced.load()) return false;
    std::unique_ptr<FileInput> file = FileInput::open(source);
    if (!file) return false;
    const AVInputFormat* format = nullptr;
    if (av_probe_input_buffer2(file->context(), &format, source, nullptr, 0, 0) < 0 || !isMovFamily(format) ||
        !layoutAllowsTables(*file))
        return false;
    AVFormatContext* opened = avformat_alloc_context();
    if (!opened) return false;
    opened->pb = file->context();
    opened->flags |= AVFMT_FLAG_NOPARSE;
    // A failed open frees the context but leaves the I/O layer to its owner.
    if (avformat_open_input(&opened, source, format, nullptr) != 0) return false;
    InputFormatHolder context(opened);
    if (!streamsAllowTables(*file, context.get())) return false;
    input = std::move(file);
    formatContext = std::move(context);
    return true;
}

int AVStreamParse::sendNotify(int kind, int detail, void* data) {
    return notify ? notify(kind, detail, data, notifyData) : 0;
}

int AVStreamParse::scanStreams() {
    if (!formatContext) return 1;
    const int found = avformat_find_stream_info(formatContext.get(), nullptr);
    if (found < 0) {
        failureCode = found;
        return 1;
    }
    duration = formatContext->duration == AV_NOPTS_VALUE
                   ? 0.0
                   : static_cast<double>(formatContext->duration) / 1000.0;
    codecContexts.clear();
    codecContexts.resize(formatContext->nb_streams);

    for (unsigned int index = 0; index < formatContext->nb_streams; ++index) {
        AVStream* stream = formatContext->streams[index];
        // The per-stream tables have 10 slots indexed by stream index, so a
        // stream at index 10 or above is left out like a stream of an unknown
        // kind: never examined, never read. This also bounds each list.
        if (index >= static_cast<unsigned int>(kParseTableSize)) {
            stream->discard = AVDISCARD_ALL;
            continue;
        }
        int refused = 0;
        switch (stream->codecpar->codec_type) {
        case AVMEDIA_TYPE_VIDEO:
            refused = scanVideo(stream, static_cast<int>(index));
            break;
        case AVMEDIA_TYPE_AUDIO:
            refused = scanAudio(stream, static_cast<int>(index));
            break;
        case AVMEDIA_TYPE_SUBTITLE:
            subtitleList[subtitleCount++] = static_cast<int32_t>(index);
            hasSubtitle = true;
            if (firstSubtitle == -1) firstSubtitle = static_cast<int16_t>(index);
            break;
        default:
            stream->discard = AVDISCARD_ALL;
            break;
        }
        if (refused) return 1;
    }

    if (!hasVideo) {
        sendNotify(kParseError, 2, nullptr);
        return 1;
    }
    // No reader exists yet: nobody else can see the state.
    state = kParseStateRunning;
    sendNotify(kParseOpened, 0, nullptr);
    try {
        reader.reset(new std::thread(&AVStreamParse::readLoop, this));
    } catch (const std::exception&) {
        return 1;
    }
    return 0;
}

int AVStreamParse::scanVideo(AVStream* stream, int index) {
    AVCodecParameters* parameters = stream->codecpar;
    // An attached picture (cover art) is one still image beside the video,
    // not a video stream: it is left out like any stream of no use here.
    if (parameters->width <= 0 || parameters->height <= 0 || (stream->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
        stream->discard = AVDISCARD_ALL;
        return 0;
    }
    videoList[videoCount++] = index;
    width = parameters->width;
    height = parameters->height;
    hasVideo = true;
    frameRate = frameRateOf(stream);
    rotation = rotationOf(stream);
    if (firstVideo == -1) {
        firstVideo = static_cast<int16_t>(index);
        videoTimeBase = stream->time_base;
        openDecoder(stream);
    }
    videoBitRate = clampToInt32(parameters->bit_rate);
    videoCodecId = parameters->codec_id;
    if (parameters->codec_id != AV_CODEC_ID_H264) {
        sendNotify(kParseError, 3, nullptr);
        return 1;
    }
    extraData = copyBytes(parameters->extradata, parameters->extradata_size, &extraDataSize);

    const AVBitStreamFilter* definition = av_bsf_get_by_name("h264_mp4toannexb");
    AVBSFContext* made = nullptr;
    if (!definition || av_bsf_alloc(definition, &made) < 0) return 1;
    FilterHolder filter(made);
    // Initialising the filter on the stream's parameters is what rewrites the
    // extra data into start-code form; like the conversion call it replaces,
    // its result is not looked at and no packet ever goes through it.
    if (avcodec_parameters_copy(filter->par_in, parameters) >= 0) av_bsf_init(filter.get());
    const AVCodecParameters* converted = filter->par_out;
    annexBExtraData = converted ? copyBytes(converted->extradata, converted->extradata_size,
                                            &annexBExtraDataSize)
                                : nullptr;
    if (!converted) annexBExtraDataSize = 0;
    return 0;
}

int AVStreamParse::scanAudio(AVStream* stream, int index) {
    AVCodecParameters* parameters = stream->codecpar;
    if (parameters->sample_rate == 0) {
        stream->discard = AVDISCARD_ALL;
        return 0;
    }
    int32_t channelCount = parameters->ch_layout.nb_channels;
    audioList[audioCount++] = index;
    sampleRates[index] = parameters->sample_rate;
    channels[index] = static_cast<uint16_t>(channelCount & 0xFFFF);
    hasAudio = true;
    if (firstAudio == -1) {
        firstAudio = static_cast<int16_t>(index);
        audioTimeBase = stream->time_base;
        openDecoder(stream);
    }
    audioCodecId = parameters->codec_id;
    audioRate = stream->time_base.den;
    audioChannels = channelCount == 0 ? 2 : channelCount;
    audioBitRate = clampToInt32(parameters->bit_rate);
    if (parameters->codec_id != AV_CODEC_ID_AAC) {
        sendNotify(kParseError, 3, nullptr);
        return 1;
    }
    if (audioRate != 44100 && audioRate != 48000) {
        sendNotify(kParseError, 4, nullptr);
        return 1;
    }
    if (audioChannels < 1 || audioChannels > 3) {
        sendNotify(kParseError, 5, nullptr);
        return 1;
    }
    return 0;
}

const AVCodec* AVStreamParse::openDecoder(AVStream* stream) {
    if (!stream || stream->index < 0) return nullptr;
    size_t slot = static_cast<size_t>(stream->index);
    if (slot >= codecContexts.size()) codecContexts.resize(slot + 1);
    auto& context = codecContexts[slot];
    if (context && avcodec_is_open(context.get())) return context->codec;
    const AVCodec* decoder = avcodec_find_decoder(stream->codecpar->codec_id);
    if (!decoder) return nullptr;
    context.reset(avcodec_alloc_context3(decoder));
    if (!context || avcodec_parameters_to_context(context.get(), stream->codecpar) < 0 ||
        avcodec_open2(context.get(), decoder, nullptr) < 0) {
        context.reset();
        return nullptr;
    }
    return decoder;
}

void AVStreamParse::closeInput() {
    if (!formatContext) return;
    codecContexts.clear();
    formatContext.reset();
    input.reset();
}

bool AVStreamParse::isStopping() {
    std::lock_guard<std::mutex> lock(mutex);
    return state == kParseStateStopping;
}

void AVStreamParse::pause() {
    std::unique_lock<std::mutex> lock(mutex);
    // One wait, ended by any wake-up: the test and the wait share this hold
    // of the mutex, so a stop cannot slip in between.
    if (state != kParseStateStopping) condition.wait(lock);
}

// The index never looks into a payload; a parser that libavformat runs on a
// stream would, so then the payloads it skips read as zeros.
bool AVStreamParse::anyStreamParsed() const {
    for (unsigned i = 0; i < formatContext->nb_streams; ++i)
        if (av_stream_get_parser(formatContext->streams[i])) return true;
    return false;
}

void AVStreamParse::readLoop() {
    ReadCursor cursor;
    prepareScratch(&cursor);
    PacketHolder packet(av_packet_alloc());
    if (!packet) {
        sendNotify(kParseError, 0, nullptr);
        return;
    }
    // The header and the stream information are known: from here on, a walk
    // from the tables leaves the payloads in the file.
    if (input) input->skipPayloads(!anyStreamParsed());
    while (!isStopping()) {
        const int result = av_read_frame(formatContext.get(), packet.get());
        if (result == AVERROR_EOF) {
            sendNotify(kParseEnded, 1, nullptr);
            sendNotify(kParseEnded, 2, nullptr);
            return;
        }
        if (result != 0) {
            failureCode = result;
            if (++cursor.readFailures > kMaxReadFailures) {
                sendNotify(kParseError, 0, nullptr);
                return;
            }
            continue;
        }
        cursor.readFailures = 0;
        const int answer = reportPacket(packet.get(), &cursor);
        av_packet_unref(packet.get());
        if (answer == 1) pause();
    }
}

// The scratch buffer that audio packets are wrapped into follows from the
// picture size. A very small picture can make it shorter than a wrapped audio
// packet; it then grows to fit (reportAudio), so that no packet is lost from
// the index and no write passes its end.
void AVStreamParse::prepareScratch(ReadCursor* cursor) {
    const size_t size = static_cast<size_t>(width > 0 ? width : 0) * static_cast<size_t>(height > 0 ? height : 0) * 3 / 2;
    cursor->scratch.reset(new (std::nothrow) uint8_t[size > 0 ? size : 1]);
    cursor->scratchSize = cursor->scratch ? size : 0;
}

int AVStreamParse::reportPacket(AVPacket* packet, ReadCursor* cursor) {
    const int index = packet->stream_index;
    if (index < 0 || static_cast<unsigned int>(index) >= formatContext->nb_streams ||
        !formatContext->streams[index] || formatContext->streams[index]->discard == AVDISCARD_ALL)
        return 0;
    if (packet->pts == AV_NOPTS_VALUE) packet->pts = packet->dts;
    const AVStream* stream = formatContext->streams[index];
    if (listHas(videoList, videoCount, index)) return reportVideo(packet, stream, cursor);
    if (listHas(audioList, audioCount, index) && index == firstAudio) return reportAudio(packet, stream, cursor);
    // Subtitle packets, audio of other streams, and any stream in no list:
    // nothing leaves the parser.
    return 0;
}

// Video before the first key packet cannot be decoded: it is not reported.
// Times count from the first reported packet's pts and dts.
int AVStreamParse::reportVideo(const AVPacket* packet, const AVStream* stream, ReadCursor* cursor) {
    if (!cursor->keySeen && !(packet->flags & AV_PKT_FLAG_KEY)) return 0;
    cursor->keySeen = true;
    videoTimeBase = stream->time_base;
    videoCodecId = stream->codecpar->codec_id;
    const double ticks = videoTicksPerSecond(videoTimeBase);
    anchor(&cursor->videoPts, packet->pts, ticks, &videoPtsOrigin);
    anchor(&cursor->videoDts, packet->dts, ticks, &videoDtsOrigin);
    ParsedPacket parsed = parsedFrom(*packet, packet->data, packet->size);
    parsed.pts = toMilliseconds(packet->pts, cursor->videoPts.ticks, ticks);
    parsed.dts = toMilliseconds(packet->dts, cursor->videoDts.ticks, ticks);
    return sendNotify(kParsePacket, 2, &parsed);
}

// Audio of the first audio stream goes out wrapped in an ADTS header, its
// dts equal to its pts, both counted from the first audio packet's pts.
int AVStreamParse::reportAudio(const AVPacket* packet, const AVStream* stream, ReadCursor* cursor) {
    audioTimeBase = stream->time_base;
    audioCodecId = stream->codecpar->codec_id;
    const double ticks = audioTicksPerSecond(audioTimeBase);
    anchor(&cursor->audioPts, packet->pts, ticks, &audioPtsOrigin);
    const int64_t pts = toMilliseconds(packet->pts, cursor->audioPts.ticks, ticks);
    int32_t size = packet->size;
    const size_t needed = static_cast<size_t>(size) + kAdtsHeaderSize;
    if (needed > cursor->scratchSize) {
        std::unique_ptr<uint8_t[]> larger(new (std::nothrow) uint8_t[needed]);
        // No room for this frame: drop it rather than write past the end.
        if (!larger) return 0;
        cursor->scratch = std::move(larger);
        cursor->scratchSize = needed;
    }
    wrapAdts(packet->data, cursor->scratch.get(), &size, audioRate, audioChannels);
    ParsedPacket parsed = parsedFrom(*packet, cursor->scratch.get(), size);
    parsed.pts = pts;
    parsed.dts = pts;
    return sendNotify(kParsePacket, 1, &parsed);
}

void AVStreamParse::wrapAdts(const uint8_t* packet, uint8_t* destination, int32_t* size, int32_t rate,
                             int32_t channels) {
    int32_t payload = *size;
    uint32_t length = static_cast<uint32_t>(payload) + kAdtsHeaderSize;
    uint32_t channelBits = static_cast<uint32_t>(channels);
    destination[0] = 0xFF;
    destination[1] = 0xF1;
    destination[2] = static_cast<uint8_t>((rateIndex(rate) << 2) | ((channelBits >> 2) & 1));
    destination[3] = static_cast<uint8_t>(((channelBits & 3) << 6) | ((length >> 11) & 3));
    destination[4] = static_cast<uint8_t>((length >> 3) & 0xFF);
    destination[5] = static_cast<uint8_t>(((length & 7) << 5) | 0x1F);
    destination[6] = static_cast<uint8_t>(0xFC | ((static_cast<uint32_t>(payload) / 1024) & 3));
    if (payload > 0 && packet) std::memcpy(destination + kAdtsHeaderSize, packet, payload);
    *size = payload + kAdtsHeaderSize;
}

void AVStreamParse::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        state = kParseStateStopping;
    }
    if (reader && reader->joinable()) {
        condition.notify_all();
        reader->join();
    }
    reader.reset();
    closeInput();
    // The path exists only between init and the first stop: that pairs each
    // network setup of init with exactly one teardown.
    if (path) {
        path.reset();
        avformat_network_deinit();
    }
}
