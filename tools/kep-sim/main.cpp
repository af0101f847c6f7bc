#include "FixtureStore.h"
#include "KepSimServer.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QHostAddress>
#include <QTextStream>

#include <cstdio>

namespace {

constexpr int usageError = 64;

int fail(int status, const QString& reason)
{
    QTextStream(stderr) << "kep-sim: " << reason << Qt::endl;
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kep-sim"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Kep registration service simulator on 127.0.0.1."));
    parser.addHelpOption();
    const QCommandLineOption fixturesOption(QStringLiteral("fixtures"),
        QStringLiteral("Folder of fixtures: <mediaId>/<updateId>.xml or <mediaId>/default.xml."), QStringLiteral("DIR"));
    const QCommandLineOption portOption(QStringLiteral("port"), QStringLiteral("Port to listen on; 0 picks a free one."),
                                        QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption delayOption(QStringLiteral("delay-ms"), QStringLiteral("Delay every answer by N ms."),
                                         QStringLiteral("N"), QStringLiteral("0"));
    parser.addOptions({fixturesOption, portOption, delayOption});
    if (!parser.parse(app.arguments()))
        return fail(usageError, parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        QTextStream(stdout) << parser.helpText();
        return 0;
    }
    if (!parser.positionalArguments().isEmpty())
        return fail(usageError, QStringLiteral("unexpected argument: ") + parser.positionalArguments().first());

    const QString fixtures = parser.value(fixturesOption);
    if (fixtures.isEmpty() || !QFileInfo(fixtures).isDir())
        return fail(usageError, QStringLiteral("--fixtures DIR must name a folder"));
    bool portOk = false;
    const uint port = parser.value(portOption).toUInt(&portOk);
    if (!portOk || port > 65535)
        return fail(usageError, QStringLiteral("--port wants a number from 0 to 65535"));
    bool delayOk = false;
    const int delayMs = parser.value(delayOption).toInt(&delayOk);
    if (!delayOk || delayMs < 0)
        return fail(usageError, QStringLiteral("--delay-ms wants a number of milliseconds"));

    KepSim::KepSimServer server(KepSim::FixtureStore(QFileInfo(fixtures).absoluteFilePath()), delayMs);
    if (!server.listen(QHostAddress::LocalHost, quint16(port)))
        return fail(1, QStringLiteral("cannot listen on 127.0.0.1:%1: %2").arg(port).arg(server.errorString()));

    // Whoever started us waits for this line to learn the address.
    std::printf("kep-sim listening on %s\n", qPrintable(server.endPoint()));
    std::fflush(stdout);
    return app.exec();
}
