#pragma once

#include <QCoreApplication>
#include <QFile>
#include <QProcessEnvironment>

#include <unistd.h>

// This test program run again as a child ("--child ARGS...", handled by the suite's static child()):
// for another environment, another user (nobody through setpriv, as file modes do not stop root) or a death.
struct ChildRun
{
    static constexpr int nobody = 65534;
    explicit ChildRun(const QStringList& args, const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment(),
                      bool unprivileged = false, const QString& workDir = QString());
    bool crashed = true;
    int exitCode = -1;
    QStringList out;
    QStringList err;

    // Empty when an unprivileged child can run here, else the reason it cannot.
    static QString unprivilegedUnavailable();
    // Lets the unprivileged child enter dir (mode 0755), or own path.
    static bool openToOthers(const QString& dir) { return QFile::setPermissions(dir, QFileDevice::Permissions(0x7755)); }
    static bool giveAway(const QString& path)
    {
        return ::geteuid() != 0 || ::chown(QFile::encodeName(path).constData(), nobody, nobody) == 0;
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
