// The library reads through a descriptor that is open already and may open nothing by itself: a
// playlist or an index in the file cannot make it reach for other files or the network.
#include "apps/media_probe/media_file.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <vector>

namespace {

constexpr int kBuffer = 64 << 10;

struct Source {
  int fd;

  static int Read(void* opaque, uint8_t* buffer, int size) {
    const Source& self = *static_cast<const Source*>(opaque);
    ssize_t n;
    do {
      n = read(self.fd, buffer, static_cast<size_t>(size));
    } while (n < 0 && errno == EINTR);
    if (n < 0) return AVERROR(errno);
    return n == 0 ? AVERROR_EOF : static_cast<int>(n);
  }
  static int64_t Seek(void* opaque, int64_t offset, int whence) {
    const Source& self = *static_cast<const Source*>(opaque);
    if (whence == AVSEEK_SIZE) return -1;
    const off_t place = lseek(self.fd, offset, whence & ~AVSEEK_FORCE);
    return place < 0 ? AVERROR(errno) : place;
  }
};

std::string ErrorText(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE];
  return av_make_error_string(text, sizeof text, error);
}

// An open media file. The library's context refers to the source, so it does not move.
class Container {
 public:
  explicit Container(int fd) : m_source{fd} {
    av_log_set_level(AV_LOG_QUIET);
    lseek(fd, 0, SEEK_SET);
    auto* const buffer = static_cast<unsigned char*>(av_malloc(kBuffer));
    if (buffer == nullptr) throw std::bad_alloc();
    m_io = avio_alloc_context(buffer, kBuffer, 0, &m_source, Source::Read, nullptr, Source::Seek);
    m_context = avformat_alloc_context();
    if (m_io == nullptr || m_context == nullptr) throw std::bad_alloc();
    m_context->pb = m_io;
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "none", 0);
    m_error = avformat_open_input(&m_context, nullptr, nullptr, &options);
    av_dict_free(&options);
    if (m_error >= 0) m_error = avformat_find_stream_info(m_context, nullptr);
  }
  ~Container() {
    avformat_close_input(&m_context);
    av_freep(&m_io->buffer);
    avio_context_free(&m_io);
  }
  Container(const Container&) = delete;
  Container& operator=(const Container&) = delete;

  int error() const { return m_error; }
  AVFormatContext* operator->() const { return m_context; }
  AVFormatContext* get() const { return m_context; }

 private:
  Source m_source;
  AVIOContext* m_io = nullptr;
  AVFormatContext* m_context = nullptr;
  int m_error;
};

std::string Seconds(int64_t time, AVRational base) {
  return fmt::format("{:.3f} s", static_cast<double>(time) * av_q2d(base));
}

std::string ContainerLines(const Container& container) {
  std::string text = fmt::format("Container: {}\n", container->iformat->name);
  if (container->duration != AV_NOPTS_VALUE) {
    text += fmt::format("Duration: {}\n", Seconds(container->duration, {1, AV_TIME_BASE}));
  }
  if (container->bit_rate > 0) text += fmt::format("Bit rate: {} bit/s\n", container->bit_rate);
  return text;
}

std::string StreamLine(const AVStream& stream) {
  const AVCodecParameters& codec = *stream.codecpar;
  const char* type = av_get_media_type_string(codec.codec_type);
  std::string text = fmt::format("Stream {}: {} {}", stream.index, type != nullptr ? type : "data",
                                 avcodec_get_name(codec.codec_id));
  if (codec.codec_type == AVMEDIA_TYPE_VIDEO) {
    text += fmt::format(" {}x{}", codec.width, codec.height);
    if (stream.avg_frame_rate.num > 0 && stream.avg_frame_rate.den > 0) {
      text += fmt::format(" {:.3f} fps", av_q2d(stream.avg_frame_rate));
    }
  } else if (codec.codec_type == AVMEDIA_TYPE_AUDIO) {
    text += fmt::format(" {} Hz {} channels", codec.sample_rate, codec.ch_layout.nb_channels);
  }
  if (codec.bit_rate > 0) text += fmt::format(" {} bit/s", codec.bit_rate);
  return text + "\n";
}

MediaReport Failure(const Container& container) {
  const bool unknown = container.error() == AVERROR_INVALIDDATA;
  return {unknown ? MediaReport::kUnknown : MediaReport::kFailed, ErrorText(container.error())};
}

// What the packets of a stream come to.
struct Tally {
  int64_t packets = 0, key_packets = 0, bytes = 0, largest = 0;
  int64_t first = AV_NOPTS_VALUE, last = AV_NOPTS_VALUE;
  int64_t corrupt = 0;
  int64_t backwards = 0;  // decoding times that do not grow

  void Add(const AVPacket& packet) {
    ++packets;
    key_packets += (packet.flags & AV_PKT_FLAG_KEY) != 0;
    corrupt += (packet.flags & AV_PKT_FLAG_CORRUPT) != 0;
    bytes += packet.size;
    largest = std::max<int64_t>(largest, packet.size);
    if (packet.dts == AV_NOPTS_VALUE) return;
    if (first == AV_NOPTS_VALUE) first = packet.dts;
    backwards += last != AV_NOPTS_VALUE && packet.dts <= last;
    last = packet.dts;
  }
  std::string Lines(AVRational base) const {
    std::string text = fmt::format(
        "  Packets: {}, {} of them key\n  Bytes: {}, largest packet {}\n  Corrupt: {}, out of "
        "order: "
        "{}\n",
        packets, key_packets, bytes, largest, corrupt, backwards);
    if (first == AV_NOPTS_VALUE) return text;
    text += fmt::format("  From {} to {}\n", Seconds(first, base), Seconds(last, base));
    const double seconds = (static_cast<double>(last) - static_cast<double>(first)) * av_q2d(base);
    if (seconds > 0) {
      text += fmt::format("  Average: {:.0f} bit/s\n", static_cast<double>(bytes) * 8 / seconds);
    }
    return text;
  }
};

}  // namespace

MediaReport ProbeMediaFile(int fd) {
  const Container container(fd);
  if (container.error() < 0) return Failure(container);
  MediaReport report{MediaReport::kRecognised, ContainerLines(container)};
  for (unsigned i = 0; i < container->nb_streams; ++i) {
    report.text += StreamLine(*container->streams[i]);
  }
  return report;
}

MediaReport AnalyzeMediaFile(int fd) {
  const Container container(fd);
  if (container.error() < 0) return Failure(container);
  std::vector<Tally> tallies;
  const std::unique_ptr<AVPacket, void (*)(AVPacket*)> packet(
      av_packet_alloc(), [](AVPacket* p) { av_packet_free(&p); });
  if (packet == nullptr) throw std::bad_alloc();
  int error;
  while ((error = av_read_frame(container.get(), packet.get())) >= 0) {
    const auto index = static_cast<size_t>(packet->stream_index);
    if (index >= tallies.size()) tallies.resize(index + 1);  // streams may appear on the way
    tallies[index].Add(*packet);
    av_packet_unref(packet.get());
  }
  if (error != AVERROR_EOF) return {MediaReport::kFailed, ErrorText(error)};
  tallies.resize(container->nb_streams);
  MediaReport report{MediaReport::kRecognised, ContainerLines(container)};
  for (unsigned i = 0; i < container->nb_streams; ++i) {
    report.text += StreamLine(*container->streams[i]);
    report.text += tallies[i].Lines(container->streams[i]->time_base);
  }
  return report;
}
