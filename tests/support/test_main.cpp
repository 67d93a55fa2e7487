#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    // Each test process, and every program it starts, gets a temporary directory of its own:
    // what other runs left in the machine's one (workspaces, records) is never counted, and
    // what this run leaves goes with it.
    const QTemporaryDir temporary(QDir::tempPath() + QStringLiteral("/zo-test-XXXXXX"));
    if (!temporary.isValid()) {
        std::fprintf(stderr, "cannot make a temporary directory for the tests\n");
        return 1;
    }
    // As open as the system's, for the tests that drop their privileges.
    QFile::setPermissions(temporary.path(), QFileDevice::Permissions(0x7777));
    qputenv("TMPDIR", QFile::encodeName(temporary.path()));
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
