// Reading a media file into a Clip, and replaying it.
#include <algorithm>
#include <cstring>

#include "camsim/media_source.h"
#include "camsim/av_owners.h"

namespace camsim {
namespace {

std::string AvError(int err) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(err, text, sizeof text);
    return text;
}

bool Fail(std::string* error, const std::string& what) {
    if (error) *error = what;
    return false;
}

int64_t PacketMs(const AVPacket* pkt, AVRational tb) {
    int64_t ts = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
    if (ts == AV_NOPTS_VALUE) return AV_NOPTS_VALUE;
    return av_rescale_q(ts, tb, AVRational{1, 1000});
}

}  // namespace

uint32_t WireCodec(VideoCodec codec) {
    switch (codec) {
    case VideoCodec::H264: return kWireH264;
    case VideoCodec::HEVC: return kWireHevc;
    case VideoCodec::MJPEG: return kWireMjpeg;
    }
    return kWireH264;
}

int32_t WireCodec(AudioCodec codec) {
    switch (codec) {
    case AudioCodec::None: return kWireNoAudio;
    case AudioCodec::Aac: return kWireAac;
    case AudioCodec::Mulaw: return kWireMulaw;
    case AudioCodec::Alaw: return kWireAlaw;
    case AudioCodec::G722: return kWireG722;
    case AudioCodec::G726: return kWireG726;
    }
    return kWireNoAudio;
}

bool ParseVideoCodec(const std::string& name, VideoCodec* out) {
    if (name == "h264") *out = VideoCodec::H264;
    else if (name == "hevc" || name == "h265") *out = VideoCodec::HEVC;
    else if (name == "mjpeg") *out = VideoCodec::MJPEG;
    else return false;
    return true;
}

bool ParseAudioCodec(const std::string& name, AudioCodec* out) {
    if (name == "none") *out = AudioCodec::None;
    else if (name == "aac") *out = AudioCodec::Aac;
    else if (name == "mulaw") *out = AudioCodec::Mulaw;
    else if (name == "alaw") *out = AudioCodec::Alaw;
    else if (name == "g722") *out = AudioCodec::G722;
    else if (name == "g726") *out = AudioCodec::G726;
    else return false;
    return true;
}

std::shared_ptr<const Clip> Clip::Load(const std::string& path, std::string* error) {
    AVFormatContext* raw = nullptr;
    int err = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
    if (err < 0) {
        Fail(error, "cannot open " + path + ": " + AvError(err));
        return nullptr;
    }
    InputFormatPtr fmt(raw);
    if ((err = avformat_find_stream_info(fmt.get(), nullptr)) < 0) {
        Fail(error, "no stream info in " + path + ": " + AvError(err));
        return nullptr;
    }
    int vi = av_find_best_stream(fmt.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (vi < 0) {
        Fail(error, "no video stream in " + path);
        return nullptr;
    }
    const AVStream* vs = fmt->streams[vi];
    int wire = WireVideoCodec(vs->codecpar->codec_id);
    if (wire < 0) {
        Fail(error, std::string("video codec not carried: ") + avcodec_get_name(vs->codecpar->codec_id));
        return nullptr;
    }
    auto clip = std::make_shared<Clip>();
    clip->codec = static_cast<uint32_t>(wire);
    clip->width = static_cast<uint32_t>(vs->codecpar->width);
    clip->height = static_cast<uint32_t>(vs->codecpar->height);
    AVRational rate = vs->avg_frame_rate.num > 0 ? vs->avg_frame_rate : vs->r_frame_rate;
    if (rate.num > 0 && rate.den > 0) clip->fps = av_q2d(rate);
    if (clip->fps < 1 || clip->fps > 240) clip->fps = 25.0;

    int ai = av_find_best_stream(fmt.get(), AVMEDIA_TYPE_AUDIO, -1, vi, nullptr, 0);
    const AVStream* as = nullptr;
    if (ai >= 0) {
        as = fmt->streams[ai];
        int wa = WireAudioCodec(as->codecpar->codec_id);
        if (wa < 0) {
            as = nullptr;
            ai = -1;
        } else {
            clip->audio_codec = wa;
            clip->sample_rate = static_cast<uint32_t>(as->codecpar->sample_rate);
        }
    }

    // H.264/H.265 in MP4 or MKV carry length-prefixed NAL units; the wire
    // wants Annex-B start codes. Input that is Annex-B already passes as is.
    BsfPtr bsf;
    const char* bsfName = vs->codecpar->codec_id == AV_CODEC_ID_H264   ? "h264_mp4toannexb"
                          : vs->codecpar->codec_id == AV_CODEC_ID_HEVC ? "hevc_mp4toannexb"
                                                                       : nullptr;
    if (bsfName) {
        AVBSFContext* b = nullptr;
        if (av_bsf_alloc(av_bsf_get_by_name(bsfName), &b) < 0) {
            Fail(error, std::string("bitstream filter missing: ") + bsfName);
            return nullptr;
        }
        bsf.reset(b);
        avcodec_parameters_copy(bsf->par_in, vs->codecpar);
        bsf->time_base_in = vs->time_base;
        if ((err = av_bsf_init(bsf.get())) < 0) {
            Fail(error, std::string(bsfName) + ": " + AvError(err));
            return nullptr;
        }
    }

    const double frameMs = 1000.0 / clip->fps;
    int64_t videoCount = 0;
    auto addVideo = [&](const AVPacket* p) {
        int64_t ms = PacketMs(p, vs->time_base);
        if (ms == AV_NOPTS_VALUE) ms = static_cast<int64_t>(videoCount * frameMs);
        ++videoCount;
        clip->frames.push_back(
            {kStreamVideo, (p->flags & AV_PKT_FLAG_KEY) != 0, ms, std::vector<uint8_t>(p->data, p->data + p->size)});
    };

    PacketPtr pkt = MakePacket();
    PacketPtr out = MakePacket();
    auto drain = [&]() {
        while (av_bsf_receive_packet(bsf.get(), out.get()) == 0) {
            addVideo(out.get());
            av_packet_unref(out.get());
        }
    };
    while (av_read_frame(fmt.get(), pkt.get()) >= 0) {
        if (pkt->stream_index == vi) {
            if (bsf) {
                if (av_bsf_send_packet(bsf.get(), pkt.get()) == 0) drain();
            } else {
                addVideo(pkt.get());
            }
        } else if (pkt->stream_index == ai && pkt->size > 0) {
            int64_t ms = PacketMs(pkt.get(), as->time_base);
            if (ms != AV_NOPTS_VALUE) {
                std::vector<uint8_t> data =
                    as->codecpar->codec_id == AV_CODEC_ID_AAC
                        ? WithAdtsHeader(pkt->data, static_cast<size_t>(pkt->size),
                                         as->codecpar->extradata,
                                         static_cast<size_t>(std::max(0, as->codecpar->extradata_size)))
                        : std::vector<uint8_t>(pkt->data, pkt->data + pkt->size);
                clip->frames.push_back({kStreamAudio, true, ms, std::move(data)});
            }
        }
        av_packet_unref(pkt.get());
    }
    if (bsf && av_bsf_send_packet(bsf.get(), nullptr) == 0) drain();

    // Start at the first video key frame; timestamps from there.
    auto first = std::find_if(clip->frames.begin(), clip->frames.end(),
                              [](const Frame& f) { return f.stream_type == kStreamVideo && f.key; });
    if (first == clip->frames.end()) {
        Fail(error, "no video key frame in " + path);
        return nullptr;
    }
    clip->frames.erase(clip->frames.begin(), first);
    const int64_t base = clip->frames.front().ts_ms;
    int64_t lastVideo = 0;
    int64_t lastAny = 0;
    for (Frame& f : clip->frames) {
        f.ts_ms = std::max<int64_t>(0, f.ts_ms - base);
        if (f.stream_type == kStreamVideo) lastVideo = std::max(lastVideo, f.ts_ms);
        lastAny = std::max(lastAny, f.ts_ms);
    }
    clip->duration_ms = std::max(lastVideo + static_cast<int64_t>(frameMs + 0.5), lastAny + 1);
    return clip;
}

bool ClipSource::Next(MediaFrame* frame) {
    if (!clip_ || clip_->frames.empty()) return false;
    if (index_ == clip_->frames.size()) {
        if (!loop_) return false;
        index_ = 0;
        loop_offset_ms_ += clip_->duration_ms;
    }
    const Clip::Frame& f = clip_->frames[index_++];
    frame->stream_type = f.stream_type;
    frame->key = f.key;
    frame->ts_ms = f.ts_ms + loop_offset_ms_;
    frame->codec = clip_->codec;
    frame->width = clip_->width;
    frame->height = clip_->height;
    frame->audio_codec = clip_->audio_codec;
    frame->sample_rate = clip_->sample_rate;
    frame->data = f.data.data();
    frame->size = f.data.size();
    return true;
}

}  // namespace camsim
