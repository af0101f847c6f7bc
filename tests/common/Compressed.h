#pragma once

#include <QByteArray>

#include <zlib.h>

// `data` as a service would send it with Content-Encoding gzip (or, with gzip false, deflate:
// zlib data), in one piece. Suites that use it link zlib.
inline QByteArray compressed(const QByteArray& data, bool gzip)
{
    z_stream z{};
    deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, gzip ? 31 : 15, 9, Z_DEFAULT_STRATEGY);
    QByteArray out(int(deflateBound(&z, uLong(data.size()))) + 32, '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.constData()));
    z.avail_in = uInt(data.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = uInt(out.size());
    deflate(&z, Z_FINISH);
    out.resize(int(z.total_out));
    deflateEnd(&z);
    return out;
}
