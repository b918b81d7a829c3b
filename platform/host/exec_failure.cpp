#include "exec_failure.h"

#include <elf.h>
#include <link.h>
#include <unistd.h>

#include <QtCore/QFile>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support.h"

namespace RuntimeManager::host {
namespace {

// The kernel looks no further than this for the end of a script's first line.
constexpr int kMostOfFirstLine = 256;
constexpr int kMostOfPath = 4096;
constexpr int kMostProgramHeaders = 64;

QByteArray InterpreterOfScript(const QByteArray& start) {
  const QByteArray line = start.mid(2, start.indexOf('\n') - 2).trimmed();
  const auto* const end =
      std::find_if(line.begin(), line.end(), [](char byte) { return byte == ' ' || byte == '\t'; });
  return line.left(static_cast<int>(end - line.begin()));
}

// Reads a structure of the binary; false when the file is too short for it.
template <typename Structure>
bool ReadAt(QFile& file, quint64 offset, Structure* structure) {
  return file.seek(static_cast<qint64>(offset)) &&
         file.read(reinterpret_cast<char*>(structure), sizeof(*structure)) == sizeof(*structure);
}

QByteArray InterpreterOfBinary(QFile& file) {
  ElfW(Ehdr) header{};
  if (!ReadAt(file, 0, &header)) {
    return {};
  }
  for (int i = 0; i < std::min<int>(header.e_phnum, kMostProgramHeaders); ++i) {
    ElfW(Phdr) part{};
    if (!ReadAt(file, header.e_phoff + static_cast<quint64>(i) * sizeof(part), &part)) {
      return {};
    }
    if (part.p_type == PT_INTERP && file.seek(static_cast<qint64>(part.p_offset))) {
      const QByteArray path =
          file.read(std::min<qint64>(static_cast<qint64>(part.p_filesz), kMostOfPath));
      return path.left(static_cast<int>(::strnlen(path.constData(), std::size_t(path.size()))));
    }
  }
  return {};
}

QString HintOf(const QByteArray& path, int error_number) {
  if (error_number == E2BIG) {
    return QStringLiteral("; its arguments and the environment are too long");
  }
  const QByteArray interpreter = InterpreterOf(path);
  if (interpreter.isEmpty()) {
    return error_number == ENOEXEC
               ? QString(
                     "; it is no program of this machine, nor a script that begins with #! and "
                     "its interpreter")
               : QString();
  }
  const QString named =
      QString("; its interpreter '%1'").arg(EscapedHead(interpreter, kMostOfFirstLine));
  return ::access(interpreter.constData(), X_OK) == 0
             ? named + " is there"
             : named + " cannot be used: " + ErrnoText(errno);
}

}  // namespace

QByteArray InterpreterOf(const QByteArray& path) {
  QFile file(QFile::decodeName(path));
  if (!file.open(QIODevice::ReadOnly)) {
    return {};
  }
  const QByteArray start = file.read(kMostOfFirstLine);
  if (start.startsWith("#!")) {
    return InterpreterOfScript(start);
  }
  const bool is_binary = start.startsWith(QByteArray(ELFMAG, SELFMAG)) && start.size() > EI_CLASS &&
                         start.at(EI_CLASS) == (sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32);
  return is_binary ? InterpreterOfBinary(file) : QByteArray();
}

QString ExecFailureText(const QByteArray& path, int error_number) {
  return QString("'%1' cannot be run: %2%3")
      .arg(Escaped(path), ErrnoText(error_number), HintOf(path, error_number));
}

}  // namespace RuntimeManager::host
