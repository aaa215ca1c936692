// AVI recorder: copies the context's packets, unchanged, into a container
// file chosen by the file name's extension. A live camera's true frame rate
// is only known when the recording stops, so the stop rewrites the video
// stream's dwRate in the finished file.
//
// Locks: g_recorder_lock (all starts and stops of all contexts), then the
// recorder's m_hRecordLock (against the reader's write step).
#include <signal.h>
#include <sys/resource.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "engine/engine.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace {

// Serialises RecordStart and RecordStop across every context.
std::mutex g_recorder_lock;

constexpr AVRational kRecordTimeBase{100, 2499};
constexpr int64_t kVideoBitRate = 4000000;
constexpr int64_t kDefaultVideoFreq = 24;
constexpr int64_t kFallbackVideoFreq = 3000;
constexpr int64_t kMaxVideoFreq = 300000;

// Bytes 0..135 of an AVI written with the video stream first end with the
// first stream header's dwScale (128) and dwRate (132).
constexpr size_t kAviPatchBytes = 136;
constexpr size_t kAviRateOffset = 132;


// A full disk or a file size limit must end the recording, not the
// process: writes then fail with an error instead of raising SIGXFSZ, and a
// recording written into a pipe does not raise SIGPIPE. Handlers the host
// installed are left alone.
void IgnoreWriteSignals() {
    static std::once_flag once;
    std::call_once(once, [] {
        for (int sig : {SIGXFSZ, SIGPIPE}) {
            struct sigaction old {};
            if (sigaction(sig, nullptr, &old) == 0 && !(old.sa_flags & SA_SIGINFO) &&
                old.sa_handler == SIG_DFL) {
                signal(sig, SIG_IGN);
            }
        }
    });
}

// The four-character codes players expect in an AVI stream header.
uint32_t AviVideoTag(int codec_id) {
    switch (codec_id) {
        case AV_CODEC_ID_H264:
            return MKTAG('H', '2', '6', '4');
        case AV_CODEC_ID_HEVC:
            return MKTAG('H', 'E', 'V', 'C');
        case AV_CODEC_ID_MJPEG:
            return MKTAG('M', 'J', 'P', 'G');
        case AV_CODEC_ID_MPEG4:
            return MKTAG('F', 'M', 'P', '4');
        default:
            return 0;
    }
}

// H.264/H.265 from MP4 or MKV carries length-prefixed NAL units and an
// avcC/hvcC record (first byte 1); an AVI needs Annex B start codes.
const char* AnnexBFilterFor(const AVCodecContext* video, int codec_id) {
    if (!video || video->extradata_size < 1 || video->extradata[0] != 1) return nullptr;
    if (codec_id == AV_CODEC_ID_H264) return "h264_mp4toannexb";
    if (codec_id == AV_CODEC_ID_HEVC) return "hevc_mp4toannexb";
    return nullptr;
}

AVStream* NewStreamOrExit(AVFormatContext* oc, int codec_id) {
    AVStream* st = avformat_new_stream(oc, avcodec_find_decoder(static_cast<AVCodecID>(codec_id)));
    if (!st) {
        // Deliberate: a recording that cannot get a stream ends the process.
        fprintf(stderr, "Could not alloc stream\n");
        exit(1);
    }
    return st;
}

int CopyExtradata(AVCodecParameters* par, const uint8_t* data, int size) {
    if (!data || size <= 0) return 0;
    par->extradata = static_cast<uint8_t*>(av_mallocz(static_cast<size_t>(size) + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!par->extradata) return AVERROR(ENOMEM);
    std::memcpy(par->extradata, data, static_cast<size_t>(size));
    par->extradata_size = size;
    return 0;
}

}  // namespace

// Time base of a demuxed packet's stream. Reader thread only (the reader
// may grow the stream table in av_read_frame).
static AVRational SourceTimeBase(const FFMpegContext* ctx, int stream_index) {
    const AVFormatContext* in = ctx->m_pFormatCtx.get();
    if (in && stream_index >= 0 && static_cast<unsigned>(stream_index) < in->nb_streams)
        return in->streams[stream_index]->time_base;
    return AVRational{1, 1000};  // private HTTP frames carry milliseconds
}

// The packets are copied, not encoded: encoder settings (group of pictures,
// B-frames, macroblock decision, the global-header flag) have no place in
// the output stream's parameters and are not set. The time base is set on
// the stream itself, which is what the AVI muxer writes as dwScale/dwRate.
int Recorder::AddVideoStream(const FFMpegContext* ctx, AVFormatContext* oc) {
    const int codec_id = ctx->m_nVideoCodecId.load(std::memory_order_relaxed);
    const AVCodecContext* video = ctx->m_pVideoCodecCtx.get();
    AVStream* st = NewStreamOrExit(oc, codec_id);
    st->id = ctx->m_nVideoIndex;
    st->time_base = kRecordTimeBase;
    AVCodecParameters* par = st->codecpar;
    par->codec_type = AVMEDIA_TYPE_VIDEO;
    par->codec_id = static_cast<AVCodecID>(codec_id);
    par->codec_tag = AviVideoTag(codec_id);
    par->bit_rate = kVideoBitRate;
    par->width = ctx->m_nWidth.load(std::memory_order_relaxed);
    par->height = ctx->m_nHeight.load(std::memory_order_relaxed);
    par->format = AV_PIX_FMT_YUV420P;

    if (const char* name = AnnexBFilterFor(video, codec_id)) {
        AVBSFContext* raw = nullptr;
        const AVBitStreamFilter* filter = av_bsf_get_by_name(name);
        if (!filter || av_bsf_alloc(filter, &raw) < 0) return AVERROR(ENOMEM);
        camctl::BsfPtr bsf(raw);
        int ret = avcodec_parameters_from_context(bsf->par_in, video);
        if (ret < 0) return ret;
        // Only the NAL framing changes; the filter passes time stamps through.
        bsf->time_base_in = AVRational{1, kPtsClockHz};
        if ((ret = av_bsf_init(bsf.get())) < 0) return ret;
        if ((ret = CopyExtradata(par, bsf->par_out->extradata, bsf->par_out->extradata_size)) < 0) return ret;
        m_pRecordBsf = std::move(bsf);
    } else if (video) {
        int ret = CopyExtradata(par, video->extradata, video->extradata_size);
        if (ret < 0) return ret;
    }
    m_pRecordVideoStream = st;
    return 0;
}

void Recorder::AddAudioStream(const FFMpegContext* ctx, AVFormatContext* oc) {
    const int codec_id = ctx->m_nAudioCodecId.load(std::memory_order_relaxed);
    const AVCodecContext* audio = ctx->m_pAudioCodecCtx.get();
    AVStream* st = NewStreamOrExit(oc, codec_id);
    st->id = ctx->m_nAudioIndex;
    AVCodecParameters* par = st->codecpar;
    par->codec_type = AVMEDIA_TYPE_AUDIO;
    par->codec_id = static_cast<AVCodecID>(codec_id);
    par->format = AV_SAMPLE_FMT_S16;
    int channels = audio && audio->ch_layout.nb_channels > 0 ? audio->ch_layout.nb_channels : 1;
    av_channel_layout_default(&par->ch_layout, channels);

    int rate = 0;
    switch (codec_id) {
        case AV_CODEC_ID_AAC:
            rate = ctx->m_AudioClock.SampleRate();
            if (rate <= 0 && audio) rate = audio->sample_rate;
            par->frame_size = kAacFrameSamples;
            break;
        case AV_CODEC_ID_ADPCM_G726:
            rate = kNarrowbandRateHz;
            par->frame_size = 4;
            par->bits_per_coded_sample = 2;
            break;
        case AV_CODEC_ID_ADPCM_G722:
            rate = 16000;
            par->frame_size = 4;
            par->bits_per_coded_sample = 4;
            break;
        default:
            if (audio) rate = audio->sample_rate;
            break;
    }
    if (rate <= 0) rate = kNarrowbandRateHz;
    par->sample_rate = rate;
    switch (codec_id) {
        case AV_CODEC_ID_ADPCM_G726:
            par->bit_rate = 16000;
            break;
        case AV_CODEC_ID_ADPCM_G722:
            par->bit_rate = 64000;
            break;
        default:
            par->bit_rate = static_cast<int64_t>(rate) * 8;
            break;
    }
    if (codec_id == AV_CODEC_ID_PCM_MULAW || codec_id == AV_CODEC_ID_PCM_ALAW) {
        par->block_align = channels;  // one byte per sample and channel
        par->bit_rate = static_cast<int64_t>(rate) * 8 * channels;
    }
    if (audio) CopyExtradata(par, audio->extradata, audio->extradata_size);
    m_pRecordAudioStream = st;
}

// Samples (per channel) in one audio packet: from its size for codecs with a
// fixed bit rate, else from its duration, else one codec frame.
static int64_t AudioPacketSamples(const FFMpegContext* ctx, const AVPacket* pkt, const AVCodecParameters* par) {
    int64_t n = av_get_audio_frame_duration2(const_cast<AVCodecParameters*>(par), pkt->size);
    if (n > 0) return n;
    if (pkt->duration > 0)
        return av_rescale_q(pkt->duration, SourceTimeBase(ctx, pkt->stream_index), AVRational{1, par->sample_rate});
    return par->frame_size > 0 ? par->frame_size : 0;
}

// Closes the muxer: trailer (index and header sizes), file, context.
// Called with m_hRecordLock held.
void Recorder::FinishRecordingFile() {
    if (AVFormatContext* oc = m_pRecordFmtCtx.get()) {
        int ret = av_write_trailer(oc);
        if (ret < 0) {
            char err[AV_ERROR_MAX_STRING_SIZE] = {};
            av_strerror(ret, err, sizeof err);
            os_print("av_write_trailer file:%s error:%s", m_szRecordFile, err);
        }
    }
    m_pRecordFmtCtx.reset();
    m_pRecordVideoStream = nullptr;
    m_pRecordAudioStream = nullptr;
    m_pRecordBsf.reset();
}

// Room checks run each time the file grows past a multiple of this, and
// keep this much (plus the index) free for the packets up to the next
// check and for the trailer.
constexpr int64_t kRoomCheckBytes = 64 * 1024;
constexpr int64_t kRoomReserveBytes = 4 * kRoomCheckBytes;
constexpr int64_t kIndexEntryBytes = 16;

// Bytes the recording file may still grow by: the file size limit and the
// free space of its file system, whichever is smaller.
static int64_t RecordRoom(const char* path, const AVIOContext* pb, int64_t pos) {
    int64_t room = INT64_MAX;
    struct rlimit lim {};
    if (getrlimit(RLIMIT_FSIZE, &lim) == 0 && lim.rlim_cur != RLIM_INFINITY)
        room = static_cast<int64_t>(lim.rlim_cur) - pos;
    struct statvfs fs {};
    if (statvfs(path, &fs) == 0) {
        // Up to one buffer of what was written is not on disk yet.
        int64_t free_bytes = static_cast<int64_t>(fs.f_bavail) * static_cast<int64_t>(fs.f_frsize) - pb->buffer_size;
        if (free_bytes < room) room = free_bytes;
    }
    return room;
}

// False when writing size more bytes could leave no room to finish the
// file with its index.
bool Recorder::RecordHasRoom(int size) const {
    const AVIOContext* pb = m_pRecordFmtCtx->pb;
    if (!pb) return true;
    const int64_t pos = avio_tell(const_cast<AVIOContext*>(pb));
    if (pos / kRoomCheckBytes == (pos + size) / kRoomCheckBytes) return true;
    const int64_t packets = static_cast<int64_t>(m_nRecordFrames) + 1;
    const int64_t need = size + kRoomReserveBytes + packets * 4 * kIndexEntryBytes;
    return RecordRoom(m_szRecordFile, pb, pos) >= need;
}

// Writes one packet; an I/O failure (disk full, size limit) closes the file
// so that what was written stays readable. Called with m_hRecordLock held.
void Recorder::WriteRecordPacket(AVPacket* pkt) {
    AVFormatContext* oc = m_pRecordFmtCtx.get();
    int ret = av_write_frame(oc, pkt);
    if (ret >= 0) return;
    char err[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(ret, err, sizeof err);
    os_print("av_write_frame file:%s error:%s", m_szRecordFile, err);
    if (oc->pb && oc->pb->error < 0) FinishRecordingFile();
}

// Frame rate of the finished recording in hundredths of a frame per second.
int64_t Recorder::ComputeVideoFreq(const FFMpegContext* ctx) const {
    int64_t freq = kDefaultVideoFreq;
    const uint64_t frames = m_nRecordFrames;
    const uint64_t start = nSaveTickCount.load(std::memory_order_relaxed);
    if (static_cast<int64_t>(os_tick_count64() - start) > 0) {
        int64_t elapsed = static_cast<int64_t>(os_tick_count64() - start);
        freq = static_cast<int64_t>(frames) * kFreqScale * 1000 / elapsed;
    }
    // With 8 kHz audio the sample count is the better clock.
    const AVCodecContext* audio = ctx->m_pAudioCodecCtx.get();
    if (m_nRecordAudioPts > 0 && audio && audio->sample_rate == kNarrowbandRateHz)
        freq = static_cast<int64_t>(frames * kFreqScale * kNarrowbandRateHz / m_nRecordAudioPts);
    if (freq <= 0 || freq > kMaxVideoFreq) {
        os_print("nVideoFreq:%d  nVideoFreq error===============", static_cast<int>(freq));
        freq = kFallbackVideoFreq;
    }
    return freq;
}

// Puts freq into the first stream header's dwRate. Only a file that starts
// like an AVI with a stream header at its usual place is touched.
static void PatchAviRate(const char* path, int64_t freq) {
    FILE* f = fopen(path, "rb+");
    if (!f) return;
    unsigned char head[kAviPatchBytes];
    bool looks_avi = fread(head, 1, sizeof head, f) == sizeof head && std::memcmp(head, "RIFF", 4) == 0 &&
                     std::memcmp(head + 8, "AVI ", 4) == 0 && std::memcmp(head + 100, "strh", 4) == 0;
    if (looks_avi) {
        const auto v = static_cast<uint32_t>(freq);
        for (int i = 0; i < 4; ++i) head[kAviRateOffset + i] = static_cast<unsigned char>(v >> (8 * i));
        if (fseek(f, 0, SEEK_SET) != 0 || fwrite(head, 1, sizeof head, f) != sizeof head)
            os_print("record file:%s frame rate not written", path);
    }
    if (fclose(f) != 0) os_print("record file:%s frame rate not written", path);
}

int Recorder::Start(const FFMpegContext* ctx, const char* path) {
    if (!ctx || !path || !Ok() || m_bRecording.load(std::memory_order_relaxed)) return -1;
    std::lock_guard<std::mutex> recorder(g_recorder_lock);
    OsMutexLock record(m_hRecordLock.get());
    if (m_bRecording.load(std::memory_order_relaxed)) return -1;

    m_nRecordFrames = 0;
    m_nRecordReserved = 0;
    nSaveTickCount.store(os_tick_count64(), std::memory_order_relaxed);
    m_nRecordAudioPts = 0;
    snprintf(m_szRecordFile, sizeof m_szRecordFile, "%s", path);

    const AVOutputFormat* fmt = av_guess_format(nullptr, path, nullptr);
    if (!fmt) {
        os_print("av_guess_format file:%s error!", path);
        return -1;
    }
    AVFormatContext* raw = nullptr;
    if (avformat_alloc_output_context2(&raw, fmt, nullptr, path) < 0 || !raw) {
        os_print("avformat_alloc_output_context2 file:%s error!", path);
        return -1;
    }
    camctl::OutputFormatPtr oc(raw);

    IgnoreWriteSignals();
    int ret = AddVideoStream(ctx, oc.get());
    // Audio the container has no tag for (G.726 in RTP's little-endian
    // packing) is left out: the file keeps its video.
    const int audio = ctx->m_nAudioCodecId.load(std::memory_order_relaxed);
    if (ret >= 0 && audio != 0 && avformat_query_codec(fmt, AVCodecID(audio), FF_COMPLIANCE_NORMAL) == 1)
        AddAudioStream(ctx, oc.get());
    if (ret >= 0) {
        av_dump_format(oc.get(), 0, path, 1);
        if (!(fmt->flags & AVFMT_NOFILE)) ret = avio_open(&oc->pb, path, AVIO_FLAG_WRITE);
    }
    if (ret >= 0) ret = avformat_write_header(oc.get(), nullptr);
    if (ret < 0) {
        char err[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(ret, err, sizeof err);
        os_print("RecordStart file:%s error:%s", path, err);
        m_pRecordVideoStream = nullptr;
        m_pRecordAudioStream = nullptr;
        m_pRecordBsf.reset();
        return -1;
    }
    m_pRecordFmtCtx = std::move(oc);
    m_bRecording.store(1, std::memory_order_relaxed);
    return 0;
}

int Recorder::Stop(const FFMpegContext* ctx) {
    if (!ctx || !Ok() || !m_bRecording.load(std::memory_order_relaxed)) return -1;
    std::lock_guard<std::mutex> recorder(g_recorder_lock);
    OsMutexLock record(m_hRecordLock.get());
    if (!m_bRecording.load(std::memory_order_relaxed)) return -1;
    m_bRecording.store(0, std::memory_order_relaxed);

    const int64_t freq = ComputeVideoFreq(ctx);
    FinishRecordingFile();
    PatchAviRate(m_szRecordFile, freq);
    return 0;
}

void Recorder::Write(const FFMpegContext* ctx, AVPacket* pkt) {
    if (!ctx || !pkt || !Ok()) return;
    OsMutexLock record(m_hRecordLock.get());
    if (!m_bRecording.load(std::memory_order_relaxed) || !m_pRecordFmtCtx) return;

    const bool video = pkt->stream_index == ctx->m_nVideoIndex;
    const bool audio = !video && ctx->m_nAudioIndex >= 0 && pkt->stream_index == ctx->m_nAudioIndex;
    const bool key = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
    // The recording starts on a video key frame; nothing before it is kept.
    if (m_nRecordFrames == 0 && !(video && key)) return;
    if (!video && !(audio && m_pRecordAudioStream)) return;

    if (!RecordHasRoom(pkt->size)) {
        os_print("record file:%s no room left, recording closed", m_szRecordFile);
        FinishRecordingFile();
        return;
    }
    camctl::PacketPtr copy = camctl::MakePacket();
    if (!copy || av_packet_ref(copy.get(), pkt) < 0) return;
    if (m_nRecordFrames == 0) nSaveTickCount.store(os_tick_count64(), std::memory_order_relaxed);

    if (video) {
        if (AVBSFContext* bsf = m_pRecordBsf.get()) {
            if (av_bsf_send_packet(bsf, copy.get()) < 0) return;
            if (av_bsf_receive_packet(bsf, copy.get()) < 0) return;
        }
        // Packets are numbered from 0 in the 100/2499 time base; the AVI
        // muxer fills any gap in that numbering with empty frames.
        const int64_t n = static_cast<int64_t>(m_nRecordFrames++);
        copy->pts = copy->dts = n;
        copy->duration = 1;
        copy->stream_index = m_pRecordVideoStream->index;
        if (key) copy->flags |= AV_PKT_FLAG_KEY;
    } else {
        AVStream* st = m_pRecordAudioStream;
        const int64_t samples = AudioPacketSamples(ctx, pkt, st->codecpar);
        const AVRational sample_tb{1, st->codecpar->sample_rate};
        copy->pts = copy->dts = av_rescale_q(static_cast<int64_t>(m_nRecordAudioPts), sample_tb, st->time_base);
        copy->duration = av_rescale_q(samples, sample_tb, st->time_base);
        copy->stream_index = st->index;
        m_nRecordAudioPts += static_cast<uint64_t>(samples);
    }
    WriteRecordPacket(copy.get());
}

int RecordStart(FFMpegContext* ctx, const char* path) { return ctx ? ctx->m_Recorder.Start(ctx, path) : -1; }

int RecordStop(FFMpegContext* ctx) { return ctx ? ctx->m_Recorder.Stop(ctx) : -1; }

void RecordWritePacket(FFMpegContext* ctx, AVPacket* pkt) {
    if (ctx) ctx->m_Recorder.Write(ctx, pkt);
}
