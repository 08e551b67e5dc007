// koReadFile, koCreateFile, koAppendFile and koReadWriteFile.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lib/scripting/CommonAPI/Include/kocpp.h"
#include "lib/scripting/osal_file.h"

// The open file of an object, and the methods of its interfaces. The script's thread only.
//
// What cannot be read or written shows in what a method returns, if at all: a script that must know
// compares positions, or reads back.
class FileInstanceData {
 public:
  // A terminator that never ends a line early: an empty one, so that a line is all there is.
  void SetReceiveEol(psText eol);
  int32_t ReadByte();  // -1 at the end of the file
  // Up to the terminator, which goes, the end of the file, or kMaxLine bytes.
  std::string ReadLine();
  bool AtEof() const;  // whether the last read met the end

  void SendByte(int32_t byte);  // its low eight bits
  void SendLine(psText line);
  void SendBlock(const KelvoTypedValue& block);
  void SetSendEol(psText eol) { m_send_eol = eol; }
  // What was written is on the medium when this returns.
  void Flush();
  // What was written is with the operating system when this returns, and on the medium soon.
  void AsyncFlush();

  // A place before the start is no place: the position stays. One beyond the end is: what is
  // written there leaves zero bytes in between.
  void SeekAbsolute(int32_t position) { Seek(position, SEEK_SET); }
  void SeekRelative(int32_t distance) { Seek(distance, SEEK_CUR); }
  void SeekToEnd() { Seek(0, SEEK_END); }
  double CurrentPosition() const;

  // A longer line comes in pieces of this length.
  static constexpr size_t kMaxLine = 4095;

 protected:
  bool Open(psText name, const char* mode);
  // At most n bytes as a koString; null for none. std::bad_alloc when memory is refused.
  pscInstance* ReadText(pscDomain* domain, int32_t n);

 private:
  enum class Operation { kNone, kRead, kWrite };
  struct BackgroundSync;

  void BeginReading();
  void BeginWriting();
  void Write(psText bytes);
  void Seek(int64_t offset, int whence);

  FileStream m_stream;
  std::string m_send_eol = "\r\n";
  std::string m_receive_eol = "\r\n";
  // For each beginning of the terminator, how much of its end begins the terminator again.
  std::vector<uint32_t> m_receive_borders = {0, 0};
  Operation m_last = Operation::kNone;
  std::shared_ptr<BackgroundSync> m_sync;  // made by the first AsyncFlush
};

template <class T>
class FileInstance : public MixinForwarder<T, KelvoObjectInstance<T, psText>, FileInstanceData> {
 public:
  bool Init(psText name) { return this->Open(name, T::kMode); }
  psStringResult ReadBlock(int32_t n) { return {this->ReadText(this->GetDomain(), n)}; }
};

class ReadFileInstance final : public FileInstance<ReadFileInstance> {
 public:
  static pscClass sm_class;
  static constexpr char kMode[] = "rb";
};
class ReadWriteFileInstance final : public FileInstance<ReadWriteFileInstance> {
 public:
  static pscClass sm_class;
  static constexpr char kMode[] = "r+b";
};
class CreateFileInstance final : public FileInstance<CreateFileInstance> {
 public:
  static pscClass sm_class;
  static constexpr char kMode[] = "w+b";
};
class AppendFileInstance final : public FileInstance<AppendFileInstance> {
 public:
  static pscClass sm_class;
  static constexpr char kMode[] = "ab";
};
