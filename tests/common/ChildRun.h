#pragma once

#include <QCoreApplication>
#include <QProcess>
#include <QStandardPaths>

#include <unistd.h>

// This test program run again as a child ("--child ARGS...", handled by the suite's static child()):
// for another environment, another user (nobody through setpriv, as file modes do not stop root) or a death.
struct ChildRun
{
    explicit ChildRun(const QStringList& args, const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment(),
                      bool unprivileged = false, const QString& workDir = QString())
    {
        const QString self = QCoreApplication::applicationFilePath();
        const bool drop = unprivileged && ::geteuid() == 0;
        QProcess child;
        child.setProcessEnvironment(env);
        child.setWorkingDirectory(workDir);
        child.start(drop ? QStringLiteral("setpriv") : self,
                    (drop ? QStringList{"--reuid=65534", "--regid=65534", "--clear-groups", self} : QStringList()) + QStringList{"--child"} + args);
        crashed = !child.waitForFinished(60000) || child.exitStatus() != QProcess::NormalExit;
        exitCode = child.exitCode();
        out = QString::fromLocal8Bit(child.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        err = QString::fromLocal8Bit(child.readAllStandardError()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }
    bool crashed = true;
    int exitCode = -1;
    QStringList out;
    QStringList err;

    // Empty when an unprivileged child can run here, else the reason it cannot.
    static QString unprivilegedUnavailable()
    {
        if (::geteuid() == 0 && QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
            return QStringLiteral("running as root without setpriv: no way to drop privileges");
        const ChildRun probe({}, QProcessEnvironment::systemEnvironment(), true);
        return probe.crashed || probe.exitCode != 0
            ? QStringLiteral("this program cannot run as nobody (is the build tree readable by others?)") : QString();
    }
};

#define KEP_TEST_MAIN_WITH_CHILD(TestClass)                                                                  \
    int main(int argc, char** argv)                                                                          \
    {                                                                                                        \
        QCoreApplication app(argc, argv);                                                                    \
        if (argc > 1 && qstrcmp(argv[1], "--child") == 0)                                                    \
            return TestClass::child(app.arguments().mid(2));                                                 \
        TestClass test;                                                                                      \
        return QTest::qExec(&test, argc, argv);                                                              \
    }
