#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <cstddef>
#include <cstdint>

// What every fuzz target needs: a Qt application object, a sandboxed HOME and system database
// (the paths are fixed when the libraries load, so the caller sets them), quiet logs, inputs.
namespace FuzzSupport {

// Aborts unless HOME and TAV_SYSTEM_DB_DIR point away from the real databases.
void setUp(int* argc, char*** argv);

QByteArray bytes(const uint8_t* data, size_t size);

// The input cut at each line "%%" into at most maxParts pieces, so one file can carry
// several related documents.
QList<QByteArray> split(const QByteArray& input, int maxParts);

// A fresh file name below HOME with this suffix; never reused, so no reader's cache sees it.
QString freshPath(const QString& suffix);
bool writeFile(const QString& path, const QByteArray& content);

// Prints why and aborts, which libFuzzer reports as a crash with the input that caused it.
[[noreturn]] void fail(const char* what, const QString& detail);

} // namespace FuzzSupport
