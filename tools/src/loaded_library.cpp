#include "loaded_library.h"

#include <dlfcn.h>
#include <link.h>
#include <tarv/tarv_capi.h>

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <cstdint>
#include <cstring>

namespace tarvctl {
namespace {

// "Package Metadata for ELF Files", of the UAPI group: a note of this owner and type, whose
// description is a JSON object.
constexpr char kOwner[] = "FDO";
constexpr ElfW(Word) kType = 0xcafe1a7e;

Dl_info LoadedLibrary() {
  Dl_info library{};
  ::dladdr(reinterpret_cast<const void*>(&TARVProcTableLoad), &library);
  return library;
}

// Names and descriptions of notes fill whole words.
std::size_t Padded(std::size_t size) { return (size + 3) / 4 * 4; }

// The description of the wanted note among those that lie in `notes`.
QByteArray FindMetadata(QByteArray notes) {
  ElfW(Nhdr) header{};
  while (static_cast<std::size_t>(notes.size()) >= sizeof(header)) {
    std::memcpy(&header, notes.constData(), sizeof(header));
    const QByteArray name = notes.mid(sizeof(header), static_cast<int>(header.n_namesz));
    const std::size_t begin = sizeof(header) + Padded(header.n_namesz);
    if (header.n_type == kType && name == QByteArray(kOwner, sizeof(kOwner))) {
      const QByteArray text = notes.mid(static_cast<int>(begin), static_cast<int>(header.n_descsz));
      return text.constData();  // up to the NULs that fill it
    }
    notes = notes.mid(static_cast<int>(begin + Padded(header.n_descsz)));
  }
  return {};
}

struct Search {
  const void* base;
  QByteArray metadata;
};

int SearchObject(dl_phdr_info* object, std::size_t /*size*/, void* data) {
  auto& search = *static_cast<Search*>(data);
  const auto* const base = static_cast<const char*>(search.base);
  if (object->dlpi_addr != reinterpret_cast<std::uintptr_t>(base)) {
    return 0;
  }
  for (int i = 0; i < object->dlpi_phnum && search.metadata.isEmpty(); ++i) {
    const auto& segment = object->dlpi_phdr[i];
    if (segment.p_type == PT_NOTE) {
      search.metadata = FindMetadata(
          QByteArray::fromRawData(base + segment.p_vaddr, static_cast<int>(segment.p_memsz)));
    }
  }
  return 1;
}

}  // namespace

std::string LibraryFolder() {
  return QFileInfo(QFile::decodeName(LoadedLibrary().dli_fname)).absolutePath().toStdString();
}

std::string LibraryVersion() {
  Search search{LoadedLibrary().dli_fbase, {}};
  ::dl_iterate_phdr(&SearchObject, &search);
  const auto version = QJsonDocument::fromJson(search.metadata).object().value("version");
  return version.toString("unknown").toStdString();
}

}  // namespace tarvctl
