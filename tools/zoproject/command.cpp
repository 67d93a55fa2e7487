#include "command.h"

#include <zo/file.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringView>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zo::cli {
namespace {

constexpr char16_t kEscapeBase = 0xDC00;

// The length of the valid UTF-8 sequence at the start of bytes, 0 when none starts there. Qt
// decodes exactly the valid ones (no overlong forms, surrogates or values beyond U+10FFFF) and
// replaces the others, so a sequence that comes back the same is valid.
int validSequence(const char* bytes, int size)
{
    const auto lead = static_cast<unsigned char>(bytes[0]);
    const int length = lead < 0x80 ? 1
        : (lead >> 5) == 0x6       ? 2
        : (lead >> 4) == 0xE       ? 3
        : (lead >> 3) == 0x1E      ? 4
                                   : 0;
    if (length == 0 || length > size)
        return 0;
    const QByteArray sequence(bytes, length);
    return QString::fromUtf8(sequence).toUtf8() == sequence ? length : 0;
}

[[noreturn]] void outputFailed()
{
    throw std::runtime_error(
        std::string("cannot write to standard output: ") + std::strerror(errno));
}

void write(const QByteArray& bytes)
{
    const auto size = static_cast<size_t>(bytes.size());
    if (std::fwrite(bytes.constData(), 1, size, stdout) != size)
        outputFailed();
}

} // namespace

QCommandLineOption jsonOption()
{
    return QCommandLineOption(QStringLiteral("json"), QStringLiteral("Print one JSON document."));
}

bool jsonRequested(const QCommandLineParser& parser)
{
    return parser.isSet(jsonOption().names().first());
}

QString fromBytes(const QByteArray& bytes)
{
    QString text = QString::fromUtf8(bytes);
    if (text.toUtf8() == bytes)
        return text;
    text.clear();
    for (int at = 0; at < bytes.size();) {
        const int length = validSequence(bytes.constData() + at, bytes.size() - at);
        if (length > 0)
            text += QString::fromUtf8(bytes.constData() + at, length);
        else
            text += QChar(kEscapeBase + static_cast<unsigned char>(bytes[at]));
        at += length > 0 ? length : 1;
    }
    return text;
}

QByteArray toBytes(const QString& text)
{
    QByteArray bytes;
    int run = 0;
    for (int at = 0; at < text.size(); ++at) {
        const char16_t unit = text[at].unicode();
        const bool escaped = unit >= kEscapeBase + 0x80 && unit <= kEscapeBase + 0xFF
            && (at == 0 || !text[at - 1].isHighSurrogate());
        if (!escaped)
            continue;
        bytes += QStringView(text).mid(run, at - run).toUtf8();
        bytes += static_cast<char>(unit - kEscapeBase);
        run = at + 1;
    }
    return bytes + QStringView(text).mid(run).toUtf8();
}

std::string bytesOf(const QString& text)
{
    return toBytes(text).toStdString();
}

QString qtPath(const QString& path)
{
    return QFile::decodeName(toBytes(path));
}

void print(const QString& line)
{
    write(toBytes(line) + '\n');
}

void printJson(const QJsonDocument& document)
{
    write(document.toJson(QJsonDocument::Indented));
}

void finishOutput()
{
    if (std::fflush(stdout) != 0)
        outputFailed();
}

Argument projectDirectoryArgument()
{
    return { QStringLiteral("DIR"),
        QStringLiteral("The project directory (default: the current directory).") };
}

QString projectDirectory(const QString& path)
{
    if (!zo::os::openDirectory(bytesOf(path).c_str()))
        throw std::runtime_error(
            "'" + bytesOf(path) + "': cannot open the directory: " + std::strerror(errno));
    return QDir::cleanPath(QFileInfo(qtPath(path)).absoluteFilePath());
}

bool isWithin(const QString& path, const QString& directory)
{
    return path == directory
        || path.startsWith(directory.endsWith(QLatin1Char('/')) ? directory : directory + '/');
}

QString oneLine(const std::string& text, bool isKey)
{
    QString line;
    for (const QChar c : fromBytes(QByteArray::fromStdString(text))) {
        if (c == QLatin1Char('\\'))
            line += QStringLiteral("\\\\");
        else if (c == QLatin1Char('\n'))
            line += QStringLiteral("\\n");
        else if (c == QLatin1Char('\r'))
            line += QStringLiteral("\\r");
        else if (isKey && c == QLatin1Char('='))
            line += QStringLiteral("\\=");
        else
            line += c;
    }
    return line;
}

} // namespace zo::cli
