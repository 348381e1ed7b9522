// CVMDKDescriptor: the text that names a disk's extents, its parent, its
// geometry and its keys, held as an ordered list of line objects.
//
// Loading keeps every line: comments, empty lines and lines that nothing here
// understands come back unchanged from toString. Name/value lines and extent
// lines are rewritten in one fixed form:
//   name=value      name="value"      ddb.name = "value"
//   RW 2048 SPARSE "disk-s001.vmdk" [offset]
// so white space around names, values and words is not kept, and "\r\n"
// becomes "\n" on those lines. Names are matched without regard to case; the
// first of several equal names wins, and the later ones are written back
// untouched.
//
// The text is decoded as the "encoding" key declares it (UTF-8 when it is
// missing, Latin-1 for an unknown encoding or for bytes that are no valid
// UTF-8) and always stored as UTF-8.
//
// A descriptor may hold millions of lines (5 MiB of empty ones), so a line is
// kept as four bytes plus its text until somebody asks for it as an object or
// changes it; from then on that line is its object. Loading, storing and
// toString take time and memory in proportion to the text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kx/base.h"
#include "kx/buffer.h"
#include "kx/containers.h"
#include "kx/string.h"
#include "zarn/descriptor_entry.h"
#include "zarn/extent_info.h"

namespace kx {
class IOutStream;
}  // namespace kx

namespace zarn {

// Reference counted (see kx/base.h). No lock of its own: one thread at a
// time.
class CVMDKDescriptor : public kx::CBase {
 public:
  // Any line that is neither a name/value line nor an extent line: comments,
  // empty lines, unknown content. Kept as it stands, a trailing "\r" too; only
  // its characters are stored as UTF-8 whatever the file declared.
  class CGenericEntry : public CVMDKDescriptorEntry {
   public:
    explicit CGenericEntry(const kx::String& line) : line_(line) {}
    kx::String toString() const override { return line_; }
    kx::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

   private:
    kx::String line_;
  };

  // A line "name=value". `value` is held without its surrounding double
  // quotes; `quoted` says whether the file had them.
  class CNameValueEntry : public CVMDKDescriptorEntry {
   public:
    CNameValueEntry(const kx::String& name, const kx::String& value, bool quoted)
        : name_(name), value_(value), quoted_(quoted) {}

    // Splits at the first "=" and trims white space around name and value.
    // Returns null when there is no "=", or the name is empty or holds a
    // blank. There is no escape character. Never raises.
    static kx::P<CNameValueEntry> tryParseDescriptorLine(const kx::String& line);

    // Names beginning with "ddb." (case-sensitive) get " = ", others "=".
    kx::String toString() const override;
    kx::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

    const kx::String& getName() const { return name_; }
    const kx::String& getValue() const { return value_; }
    bool isQuoted() const { return quoted_; }
    void setValue(const kx::String& value) { value_ = value; }

   private:
    kx::String name_;
    kx::String value_;
    bool quoted_;
  };

  // An empty document.
  CVMDKDescriptor();
  // Parses the text in `data` up to its first zero byte (or all of it). Never
  // raises for any content: a line that fits nothing is a generic line. Logs
  // a warning when the declared encoding is unknown or the bytes don't decode
  // in it, and reads the text as Latin-1 then. Raises kx::CInvalidArgError
  // for a text above 128 MiB (a descriptor area holds at most 5 MiB).
  explicit CVMDKDescriptor(const kx::TBuffer<unsigned char>& data);
  // Both copy and assignment are deep: the copy gets clones of every line and
  // shares no line object with the source.
  CVMDKDescriptor(const CVMDKDescriptor& other);
  CVMDKDescriptor& operator=(const CVMDKDescriptor& other);
  ~CVMDKDescriptor() override;

  // Every line followed by "\n"; empty text for an empty document.
  kx::String toString() const;

  // Sets "encoding" to "UTF-8", and then writes the text as UTF-8 followed by
  // bytes of `padBuffer`, exactly `size` bytes in all, from the stream's
  // present position. Raises an internal kx::CError before writing anything
  // when the text is longer than `size` or `padBuffer` has fewer used bytes
  // than the padding needs, and kx::CInvalidArgError when a line set through
  // this interface holds a zero character or one without a UTF-8 form, which
  // a reader could not get back. Errors of the stream pass through; part of
  // the bytes may then be written. The "encoding" change stays in any case.
  void store(kx::IOutStream& stream, int size, const kx::TBuffer<unsigned char>& padBuffer);

  // As setValue("encoding", "UTF-8", true, true).
  void setEncodingUTF8();

  // The value of the first entry named `name` (any case). Raises kx::CError
  // when there is none.
  kx::String getValue(const kx::String& name) const;
  // True and the value, or false and an empty `value`.
  bool tryGetValue(const kx::String& name, kx::String& value) const;
  bool hasValue(const kx::String& name) const;
  // Replaces the value of an existing entry and leaves its name, quotes and
  // place alone. Otherwise adds a new entry: with `inHeader` at the header
  // insert index (which then moves on by one, so successive header lines
  // keep their order), else at the end.
  void setValue(const kx::String& name, const kx::String& value, bool quoted, bool inHeader);

  // Adds a generic line at the header insert index (moving it on by one), or
  // at the end when `inHeader` is false.
  void addGenericLine(const kx::String& line, bool inHeader);
  // Adds `extent` (the document takes a reference of its own) directly behind
  // the first run of extent lines, or at the end when there is none.
  void addExtentEntry(CVMDKExtentInfo* extent);
  // Appends the extent lines in document order to `extents`, which is not
  // cleared first. The objects are the document's own.
  void getExtentEntries(kx::TArray<kx::P<CVMDKExtentInfo>>& extents) const;
  // For a descriptor embedded in its one extent: that extent is the file that
  // holds the descriptor, whatever name its line gives (a disk that was copied
  // or renamed keeps the old one). Sets the line's file name to `name` when
  // there is exactly one extent line, its name differs, and `name` can stand
  // in a line (no quote, backslash or line end); returns whether it changed.
  bool correctSingleExtentFilename(const kx::String& name);

  // The lines in document order; the objects are the document's own. Every
  // line becomes an object, so this costs memory by the line; the array is
  // made anew by each call and holds until the next change of the document.
  const kx::TArray<kx::P<CVMDKDescriptorEntry>>& getEntries() const;
  // Where the next header line goes: after a parse, one behind the last
  // name/value line that stands before the first extent line, or 0.
  int getHeaderInsertIndex() const { return headerInsertIndex_; }

  // Typed values. Getters of a missing key raise the not-found error of
  // getValue unless said otherwise; a value that doesn't parse raises the
  // kx::CError of the parser, and a number that doesn't fit the getter's type
  // kx::CIOError code 5. A setter replaces an existing value in place; a new
  // key goes to the header, or for "ddb." keys to the end.
  int getVersion() const;
  void setVersion(int version);
  // "CID": lower-case hex, no prefix or padding.
  uint32_t getContentID() const;
  void setContentID(uint32_t contentID);
  // "parentCID"; 0xFFFFFFFF (no parent) when missing.
  uint32_t getParentContentID() const;
  void setParentContentID(uint32_t contentID);
  kx::String getCreateType() const;
  void setCreateType(const kx::String& createType);
  kx::String getParentFileNameHint() const;
  bool tryGetParentFileNameHint(kx::String& hint) const;
  void setParentFileNameHint(const kx::String& hint);
  kx::String getAdapterType() const;
  void setAdapterType(const kx::String& adapterType);
  int64_t getGeometryCylinders() const;
  void setGeometryCylinders(int64_t cylinders);
  int64_t getGeometryHeads() const;
  void setGeometryHeads(int64_t heads);
  int64_t getGeometrySectors() const;
  void setGeometrySectors(int64_t sectors);
  // false when missing.
  bool getKxCreateExtentFilesOnDemand() const;
  void setKxCreateExtentFilesOnDemand(bool onDemand);
  // Empty when missing: the disk is not encrypted.
  kx::String getKxEncryptionAlgorithm() const;
  void setKxEncryptionAlgorithm(const kx::String& algorithm);
  kx::TBuffer<unsigned char> getKxEncryptionIV() const;
  void setKxEncryptionIV(const kx::TBuffer<unsigned char>& iv);
  kx::String getKxEncryptionKeyDerivationAlgorithm() const;
  void setKxEncryptionKeyDerivationAlgorithm(const kx::String& algorithm);
  kx::TBuffer<unsigned char> getKxEncryptionKeyDerivationSalt() const;
  void setKxEncryptionKeyDerivationSalt(const kx::TBuffer<unsigned char>& salt);
  kx::TBuffer<unsigned char> getKxEncryptedEncryptionKey() const;
  void setKxEncryptedEncryptionKey(const kx::TBuffer<unsigned char>& key);
  kx::String getKxEncryptionKeyHashAlgorithm() const;
  void setKxEncryptionKeyHashAlgorithm(const kx::String& algorithm);
  kx::TBuffer<unsigned char> getKxEncryptionKeyHash() const;
  void setKxEncryptionKeyHash(const kx::TBuffer<unsigned char>& hash);

 protected:
  // The first entry whose name equals `name` without regard to case, or null.
  kx::P<CNameValueEntry> findValueEntry(const kx::String& name) const;

 private:
  void parseText(std::string_view text, bool latin1);
  // The index of the first name/value line called `name` (any case), or npos.
  size_t findValueLine(const kx::String& name) const;
  kx::String getLineValue(size_t index) const;
  bool isExtentLine(size_t index) const;
  // The object of line `index`, made from its text at the first call.
  CVMDKDescriptorEntry* getLineObject(size_t index) const;
  void insertLine(size_t index, const kx::P<CVMDKDescriptorEntry>& entry);
  void insertAtHeader(const kx::P<CVMDKDescriptorEntry>& entry);
  // The whole text as UTF-8, each line ended by "\n". Gives npos, or the index
  // of the first line whose object holds a character that no stored text can
  // carry (then `out` is incomplete).
  size_t getTextUTF8(std::string& out) const;

  // One word a line, in document order: the top two bits give the kind of a
  // line kept as text and the rest its offset in text_, or, with both bits
  // clear, the rest is the index of the line's object in objects_.
  mutable std::vector<uint32_t> lines_;
  // The written form of every line kept as text, as UTF-8, each ended by
  // "\n"; the text of a line that became an object stays unused.
  std::string text_;
  mutable kx::TArray<kx::P<CVMDKDescriptorEntry>> objects_;
  mutable kx::TArray<kx::P<CVMDKDescriptorEntry>> entries_;  // getEntries' answer
  int headerInsertIndex_ = 0;
};

// Writes `size` bytes taken from the start of `zeros`, in pieces of at most
// its used size, at the stream's present position. Does nothing for `size`
// 0 or below. Raises an internal kx::CError when `zeros` is empty and `size`
// is above 0; errors of the stream pass through.
void vmdkWritePadding(kx::IOutStream& stream, int size, const kx::TBuffer<unsigned char>& zeros);

}  // namespace zarn
