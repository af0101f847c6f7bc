#include "AnswerFault.h"
#include "FixtureStore.h"
#include "FrontLayer.h"
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

    // --tls takes two values, which the parser cannot express: take them out first.
    QStringList arguments = app.arguments();
    QString tlsCertificate;
    QString tlsKey;
    const int tlsAt = arguments.indexOf(QStringLiteral("--tls"));
    if (tlsAt > 0) {
        if (tlsAt + 2 >= arguments.size())
            return fail(usageError, QStringLiteral("--tls needs CERT and KEY"));
        tlsCertificate = arguments.at(tlsAt + 1);
        tlsKey = arguments.at(tlsAt + 2);
        arguments.erase(arguments.begin() + tlsAt, arguments.begin() + tlsAt + 3);
    }

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Kep registration service simulator: serves SOAP 1.1 GetTAVProductInfo on 127.0.0.1\n"
        "from a folder of fixtures, checks the login and password, and prints one line\n"
        "\"kep-sim listening on URL\" on standard output when it is ready; one line per\n"
        "request goes to standard error."));
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help and exit."));
    const QCommandLineOption versionOption(QStringLiteral("version"), QStringLiteral("Show the version and exit."));
    const QCommandLineOption fixturesOption(QStringLiteral("fixtures"),
        QStringLiteral("Folder of fixtures: <mediaId>/<updateId>.xml or <mediaId>/default.xml."), QStringLiteral("DIR"));
    const QCommandLineOption portOption(QStringLiteral("port"), QStringLiteral("Port to listen on; 0 picks a free one."),
                                        QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption delayOption(QStringLiteral("delay-ms"), QStringLiteral("Delay every answer by N ms."),
                                         QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption faultOption(QStringLiteral("fault"),
        QStringLiteral("Inject one fault into every answer:\n") + KepSim::AnswerFault::description(),
        QStringLiteral("MODE"));
    // Shown in the help only: its two values are taken out before parsing.
    const QCommandLineOption tlsOption(QStringLiteral("tls"), QStringLiteral("Serve HTTPS with this PEM certificate chain and key."),
                                       QStringLiteral("CERT> <KEY"));
    parser.addOptions({helpOption, versionOption, fixturesOption, portOption, delayOption, faultOption, tlsOption});
    if (!parser.parse(arguments))
        return fail(usageError, parser.errorText() + QStringLiteral("\nTry 'kep-sim --help' for the options."));
    if (parser.isSet(helpOption)) {
        QString help = parser.helpText();
        // The parser names the program as it was started; people and man pages want its name.
        help.replace(0, help.indexOf(QLatin1String(" [options]")), QStringLiteral("Usage: kep-sim"));
        QTextStream(stdout) << help << "\n"
                            << "Exit status:\n"
                               "  kep-sim serves until a signal stops it; it exits by itself only for:\n"
                               "  0   --help or --version\n"
                               "  1   cannot listen on the port\n"
                               "  64  usage error: unknown option, bad value, missing fixtures folder,\n"
                               "      unreadable TLS certificate or key\n";
        return 0;
    }
    if (parser.isSet(versionOption)) {
        QTextStream(stdout) << "kep-sim " << KEP_VERSION << "\n";
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

    KepSim::AnswerFault fault;
    QString error;
    if (parser.isSet(faultOption) && !KepSim::AnswerFault::parse(parser.value(faultOption), &fault, &error))
        return fail(usageError, error);

    KepSim::KepSimServer server(KepSim::FixtureStore(QFileInfo(fixtures).absoluteFilePath()), delayMs, fault);
    // Broken HTTP and TLS are played by a front layer; the SOAP server then sits behind it.
    const bool front = fault.breaksTransport() || !tlsCertificate.isEmpty();
    if (!server.listen(QHostAddress::LocalHost, front ? 0 : quint16(port)))
        return fail(1, QStringLiteral("cannot listen on 127.0.0.1:%1: %2").arg(port).arg(server.errorString()));
    QString endPoint = server.endPoint();
    KepSim::FrontLayer frontLayer(fault, server.serverPort());
    if (front) {
        if (!tlsCertificate.isEmpty() && !frontLayer.setTls(tlsCertificate, tlsKey, &error))
            return fail(usageError, error);
        if (!frontLayer.listen(QHostAddress::LocalHost, quint16(port)))
            return fail(1, QStringLiteral("cannot listen on 127.0.0.1:%1: %2").arg(port).arg(frontLayer.errorString()));
        endPoint = QStringLiteral("%1://127.0.0.1:%2/")
                       .arg(frontLayer.tls() ? QStringLiteral("https") : QStringLiteral("http"))
                       .arg(frontLayer.serverPort());
    }

    // Whoever started us waits for this line to learn the address.
    std::printf("kep-sim listening on %s\n", qPrintable(endPoint));
    std::fflush(stdout);
    return app.exec();
}
