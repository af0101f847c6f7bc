#include "BodyDecoder.h"

#include <zlib.h>

namespace TavCoreShared {
namespace Network {

struct BodyDecoder::Stream
{
    z_stream z{};
    bool open = false;
    ~Stream()
    {
        if (open)
            inflateEnd(&z);
    }
};

std::unique_ptr<BodyDecoder> BodyDecoder::forEncoding(const QByteArray& contentEncoding)
{
    const QByteArray name = contentEncoding.trimmed().toLower();
    if (name == "gzip" || name == "x-gzip")
        return std::unique_ptr<BodyDecoder>(new BodyDecoder(true));
    if (name == "deflate")
        return std::unique_ptr<BodyDecoder>(new BodyDecoder(false));
    return nullptr;
}

BodyDecoder::BodyDecoder(bool gzip)
    : stream_(new Stream)
    , gzip_(gzip)
{
}

BodyDecoder::~BodyDecoder() = default;

bool BodyDecoder::start(bool raw)
{
    if (stream_->open)
        inflateEnd(&stream_->z);
    stream_->z = z_stream{};
    // gzip: the gzip wrapper only; deflate: the zlib wrapper as the standard says, or the bare
    // stream that some servers send instead.
    const int windowBits = gzip_ ? 15 + 16 : (raw ? -15 : 15);
    stream_->open = inflateInit2(&stream_->z, windowBits) == Z_OK;
    started_ = true;
    return stream_->open;
}

BodyDecoder::Status BodyDecoder::pull(QByteArray* out, int maxBytes)
{
    if (!hasInput())
        return Status::Stalled;
    if (ended_) {
        // Another gzip member may follow; anything else after the end is not ours to trust.
        if (!gzip_)
            return Status::Corrupt;
        ended_ = false;
        started_ = false;
    }
    if (!started_) {
        // A zlib header is two bytes whose big-endian value is a multiple of 31, method 8.
        const auto* head = reinterpret_cast<const uchar*>(input_.constData() + used_);
        if (!gzip_ && input_.size() - used_ < 2)
            return Status::Stalled;
        const bool zlibHeader = (head[0] & 0x0f) == 8 && ((head[0] << 8) | head[1]) % 31 == 0;
        if (!start(!gzip_ && !zlibHeader))
            return Status::Corrupt;
    }
    const int before = out->size();
    out->resize(before + maxBytes);
    z_stream& z = stream_->z;
    z.next_in = reinterpret_cast<Bytef*>(input_.data() + used_);
    z.avail_in = uInt(input_.size() - used_);
    z.next_out = reinterpret_cast<Bytef*>(out->data() + before);
    z.avail_out = uInt(maxBytes);
    const int result = inflate(&z, Z_NO_FLUSH);
    out->resize(before + maxBytes - int(z.avail_out));
    const bool moved = out->size() > before || int(z.avail_in) < input_.size() - used_;
    used_ = input_.size() - int(z.avail_in);
    if (used_ == input_.size()) {
        input_.clear();
        used_ = 0;
    } else if (used_ > (1 << 16)) {
        input_.remove(0, used_);
        used_ = 0;
    }
    if (result == Z_STREAM_END) {
        ended_ = true;
        return Status::Progress;
    }
    // Z_BUF_ERROR only says that no progress was possible with what there is so far.
    if (result != Z_OK && result != Z_BUF_ERROR)
        return Status::Corrupt;
    return moved ? Status::Progress : Status::Stalled;
}

} // namespace Network
} // namespace TavCoreShared
