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
    parser.setApplicationDescription(QStringLiteral("Kep registration service simulator on 127.0.0.1."));
    parser.addHelpOption();
    const QCommandLineOption fixturesOption(QStringLiteral("fixtures"),
        QStringLiteral("Folder of fixtures: <mediaId>/<updateId>.xml or <mediaId>/default.xml."), QStringLiteral("DIR"));
    const QCommandLineOption portOption(QStringLiteral("port"), QStringLiteral("Port to listen on; 0 picks a free one."),
                                        QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption delayOption(QStringLiteral("delay-ms"), QStringLiteral("Delay every answer by N ms."),
                                         QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption faultOption(QStringLiteral("fault"),
        QStringLiteral("Inject one fault into every answer:\n") + KepSim::AnswerFault::description(),
        QStringLiteral("MODE"));
    parser.addOptions({fixturesOption, portOption, delayOption, faultOption});
    if (!parser.parse(arguments))
        return fail(usageError, parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        QTextStream(stdout) << parser.helpText()
                            << "  --tls <CERT> <KEY>     Serve HTTPS with this PEM certificate chain and key.\n";
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
