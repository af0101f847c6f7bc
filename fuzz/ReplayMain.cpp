// Runs a fuzz target's entry point once for every file named or found in the folders named on
// the command line, without libFuzzer: the committed inputs become an ordinary test.
#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    QStringList files;
    for (int i = 1; i < argc; ++i) {
        const QString path = QFile::decodeName(argv[i]);
        if (!QFileInfo(path).isDir()) {
            files << path;
            continue;
        }
        const QDir dir(path);
        for (const QString& name : dir.entryList(QDir::Files, QDir::Name))
            files << dir.filePath(name);
    }
    LLVMFuzzerInitialize(&argc, &argv);
    for (const QString& path : files) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "replay: cannot read %s\n", qPrintable(path));
            return 1;
        }
        const QByteArray input = file.readAll();
        std::fprintf(stderr, "replay: %s\n", qPrintable(path));
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.constData()), size_t(input.size()));
    }
    std::fprintf(stderr, "replay: %lld inputs\n", static_cast<long long>(files.size()));
    return files.isEmpty() ? 1 : 0;
}
