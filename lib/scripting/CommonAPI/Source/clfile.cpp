// koReadFile, koReadWriteFile, koCreateFile and koAppendFile.
//
// The C library's streams need a seek between writing and reading; a seek of nothing from where the
// stream stands does it, and drops what was read ahead. The end of a file is not final: another
// writer may add to it, so every read looks again.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "lib/platform/assertion.h"
#include "lib/platform/log.h"
#include "lib/scripting/CommonAPI/Include/file_objects.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"

// What the background needs of a file whose object may be gone by then.
struct FileInstanceData::BackgroundSync {
  lattix::UniqueFd fd;
  // One that has not begun serves all who ask.
  std::atomic<bool> queued{false};
};

bool FileInstanceData::Open(psText name, const char* mode) {
  m_stream = osalFileOpen(name, mode);
  // Where an appending stream stands before its first write is left open by the C standard.
  if (m_stream != nullptr && mode[0] == 'a') Seek(0, SEEK_END);
  return m_stream != nullptr;
}

// --- Reading ----------------------------------------------------------------------------------

void FileInstanceData::SetReceiveEol(psText eol) {
  std::vector<uint32_t> borders(eol.size(), 0);
  for (size_t i = 1, k = 0; i < eol.size(); ++i) {
    while (k > 0 && eol[i] != eol[k]) k = borders[k - 1];
    if (eol[i] == eol[k]) ++k;
    borders[i] = static_cast<uint32_t>(k);
  }
  m_receive_eol = eol;
  m_receive_borders = std::move(borders);
}

void FileInstanceData::BeginReading() {
  if (m_last == Operation::kWrite) ::fseeko(m_stream.get(), 0, SEEK_CUR);
  m_last = Operation::kRead;
  ::clearerr_unlocked(m_stream.get());
}

int32_t FileInstanceData::ReadByte() {
  BeginReading();
  return ::getc_unlocked(m_stream.get());
}

std::string FileInstanceData::ReadLine() {
  BeginReading();
  std::string line;
  size_t matched = 0;  // bytes at the end of the line that may be the terminator's beginning
  while (line.size() - matched < kMaxLine) {
    const int byte = ::getc_unlocked(m_stream.get());
    if (byte == EOF) break;
    const char c = static_cast<char>(byte);
    line += c;
    if (m_receive_eol.empty()) continue;
    while (matched > 0 && c != m_receive_eol[matched]) matched = m_receive_borders[matched - 1];
    if (c == m_receive_eol[matched]) ++matched;
    if (matched == m_receive_eol.size()) {
      line.resize(line.size() - matched);
      return line;
    }
  }
  // A beginning that led nowhere, and one that may lead somewhere, are the next piece's.
  if (line.size() > kMaxLine) {
    Seek(-static_cast<int64_t>(line.size() - kMaxLine), SEEK_CUR);
    line.resize(kMaxLine);
  }
  LATTIX_ASSERT_TEXT(line.size() <= kMaxLine, "buffer_pos <= buffer_len");
  return line;
}

namespace {

void SetLength(pscInstance* text, size_t length) {
  pscData<psStringData>(text)->length = static_cast<uint32_t>(length);
  psStringBuffer(text)[length] = 0;
}

}  // namespace

pscInstance* FileInstanceData::ReadText(pscDomain* domain, int32_t n) {
  if (n < 1) return nullptr;
  BeginReading();
  FILE* stream = m_stream.get();
  // The file tells how much there is; what the script asks for may be anything.
  struct stat status;
  const off_t position = ::ftello(stream);
  if (position < 0 || ::fstat(::fileno(stream), &status) != 0) return nullptr;
  const size_t wanted = std::min(static_cast<size_t>(n), kPsMaxTextLength);
  const auto left = static_cast<size_t>(std::max<off_t>(status.st_size - position, 0));
  pscInstance* text = psNewStringOfLength(domain, std::min(wanted, left));
  if (text == nullptr) throw std::bad_alloc();
  size_t got = ::fread_unlocked(psStringBuffer(text), 1, std::min(wanted, left), stream);
  SetLength(text, got);
  // Asked for more, so the end is met; but the file may have grown meanwhile, or have shrunk below
  // what was read ahead.
  char more[4096];
  while (got < wanted && !AtEof()) {
    const size_t n_more = ::fread_unlocked(more, 1, std::min(sizeof more, wanted - got), stream);
    if (n_more == 0) break;
    if (!psStringAppend(text, {more, n_more})) {
      pscSubRef(text);
      throw std::bad_alloc();
    }
    got += n_more;
  }
  SetLength(text, strnlen(psStringBuffer(text), got));  // script texts hold no NUL
  return text;
}

bool FileInstanceData::AtEof() const { return ::feof_unlocked(m_stream.get()) != 0; }

// --- Writing ----------------------------------------------------------------------------------

void FileInstanceData::BeginWriting() {
  if (m_last == Operation::kRead) ::fseeko(m_stream.get(), 0, SEEK_CUR);
  m_last = Operation::kWrite;
}

void FileInstanceData::Write(psText bytes) {
  if (!bytes.empty()) ::fwrite_unlocked(bytes.data(), 1, bytes.size(), m_stream.get());
}

void FileInstanceData::SendByte(int32_t byte) {
  BeginWriting();
  ::putc_unlocked(byte, m_stream.get());
}

void FileInstanceData::SendLine(psText line) {
  BeginWriting();
  Write(line);
  Write(m_send_eol);
}

void FileInstanceData::SendBlock(const KelvoTypedValue& block) {
  try {
    const KelvoByteSequence bytes(block);
    BeginWriting();
    Write(bytes.Text());
  } catch (const std::exception& e) {
    pscPrint(std::string("ko*File::SendBlock caught exception: ") + e.what() + "\n");
  } catch (...) {
    pscPrint("ko*File::SendBlock caught unknown exception\n");
  }
}

void FileInstanceData::Flush() {
  ::fflush_unlocked(m_stream.get());
  ::fdatasync(::fileno(m_stream.get()));
}

void FileInstanceData::AsyncFlush() {
  ::fflush_unlocked(m_stream.get());
  if (m_sync == nullptr) {
    m_sync = std::make_shared<BackgroundSync>();
    m_sync->fd.Reset(::fcntl(::fileno(m_stream.get()), F_DUPFD_CLOEXEC, 0));
  }
  if (!m_sync->fd || m_sync->queued.exchange(true)) return;
  KelvoObjectGlobals::GetInstance().GetFlushQueue().Enqueue([sync = m_sync] {
    sync->queued.store(false);
    ::fdatasync(sync->fd.Get());
  });
}

// --- Positioning ------------------------------------------------------------------------------

void FileInstanceData::Seek(int64_t offset, int whence) {
  ::fseeko(m_stream.get(), offset, whence);
  m_last = Operation::kNone;
}

double FileInstanceData::CurrentPosition() const {
  return static_cast<double>(::ftello(m_stream.get()));
}

// --- The classes ------------------------------------------------------------------------------

namespace {

template <class T>
constexpr fundes kReadFunctions[] = {
    koMethod<&FileInstanceData::SetReceiveEol, T>("SetReceiveEol"),
    koMethod<&FileInstanceData::ReadByte, T>("ReadByte"),
    koMethod<&FileInstanceData::ReadByte, T>("ReadByteIfAvailable"),  // a file never blocks
    koMethod<&FileInstanceData::ReadLine, T>("ReadLine"),
    koMethod<&FileInstance<T>::ReadBlock, T>("ReadBlock"),
    koMethod<&FileInstanceData::AtEof, T>("AtEof"),
    {},
};
template <class T>
constexpr fundes kSendFunctions[] = {
    koMethod<&FileInstanceData::SendByte, T>("SendByte"),
    koMethod<&FileInstanceData::SendLine, T>("SendLine"),
    koMethod<&FileInstanceData::SendBlock, T>("SendBlock"),
    koMethod<&FileInstanceData::SetSendEol, T>("SetSendEol"),
    koMethod<&FileInstanceData::Flush, T>("Flush"),
    koMethod<&FileInstanceData::AsyncFlush, T>("AsyncFlush"),
    {},
};
template <class T>
constexpr fundes kSeekFunctions[] = {
    koMethod<&FileInstanceData::SeekAbsolute, T>("SeekAbsolute"),
    koMethod<&FileInstanceData::SeekRelative, T>("SeekRelative"),
    koMethod<&FileInstanceData::SeekToEnd, T>("SeekToEnd"),
    koMethod<&FileInstanceData::CurrentPosition, T>("CurrentPosition"),
    {},
};
constexpr fundes kPositionFunctions[] = {
    koMethod<&FileInstanceData::CurrentPosition, AppendFileInstance>("CurrentPosition"),
    {},
};

constexpr psInterface kReadFileInterfaces[] = {
    {"ifStreamRead", kReadFunctions<ReadFileInstance>},
    {"ifStreamSeek", kSeekFunctions<ReadFileInstance>},
};
// Scripts rely on this: the reading methods of these two have an interface of another name.
template <class T>
constexpr psInterface kReadWriteInterfaces[] = {
    {"ifStreamSend", kSendFunctions<T>},
    {"ifReadStream", kReadFunctions<T>},
    {"ifStreamSeek", kSeekFunctions<T>},
};
constexpr psInterface kAppendFileInterfaces[] = {
    {"ifStreamSend", kSendFunctions<AppendFileInstance>},
    {"ifStreamPosition", kPositionFunctions},
};

}  // namespace

constinit pscClass ReadFileInstance::sm_class =
    KelvoClass<ReadFileInstance>("koReadFile", kReadFileInterfaces);
constinit pscClass ReadWriteFileInstance::sm_class = KelvoClass<ReadWriteFileInstance>(
    "koReadWriteFile", kReadWriteInterfaces<ReadWriteFileInstance>);
constinit pscClass CreateFileInstance::sm_class =
    KelvoClass<CreateFileInstance>("koCreateFile", kReadWriteInterfaces<CreateFileInstance>);
constinit pscClass AppendFileInstance::sm_class =
    KelvoClass<AppendFileInstance>("koAppendFile", kAppendFileInterfaces);
