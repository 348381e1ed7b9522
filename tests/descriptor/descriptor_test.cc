#include "zarn/descriptor.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <tuple>

#include "kx/buffer_stream.h"
#include "kx/error.h"
#include "kx/parse.h"
#include "tests/support/caught_error.h"
#include "tests/support/log_capture.h"

namespace {

using zarn::CVMDKDescriptor;
using zarn::CVMDKExtentInfo;

std::string readTestFile(const std::string& name) {
  std::ifstream in(std::string(ZARN_TESTDATA_DIR) + "/descriptors/" + name, std::ios::binary);
  EXPECT_TRUE(in.good()) << name;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

kx::P<CVMDKDescriptor> parse(const std::string& bytes) {
  kx::TBuffer<unsigned char> buffer;
  buffer.assign(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  return kx::create<CVMDKDescriptor>(buffer);
}

std::string text(const CVMDKDescriptor& descriptor) { return descriptor.toString().toUTF8(); }

std::string bytesOf(const kx::CBufferStream& stream) {
  const auto& buffer = stream.getBuffer();
  return std::string(reinterpret_cast<const char*>(buffer->getData()), buffer->getUsed());
}

std::string store(CVMDKDescriptor& descriptor, int size, const kx::TBuffer<unsigned char>& pad) {
  kx::CBufferStream stream;
  descriptor.store(stream, size, pad);
  return bytesOf(stream);
}

std::string messageOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const kx::CError& e) {
    EXPECT_EQ(e.getCode(), -1);
    return e.getMessage().toUTF8();
  }
  return "(nothing raised)";
}

// The embedded descriptor of a sparse extent goes through the accessor's test.
TEST(DescriptorTest, LoadChangeStoreGivesExactBytes) {
  const struct {
    const char* name;  // of the input; the output has ".expected" instead of ".vmdk"
    std::function<void(CVMDKDescriptor&)> change;
    size_t warnings;
  } cases[] = {
      {"two_gb_max_extent_sparse",
       [](CVMDKDescriptor& d) {
         d.setContentID(0x0badcafe);
         d.setKxCreateExtentFilesOnDemand(true);
         d.setGeometryCylinders(2610);
         d.addExtentEntry(
             kx::create<CVMDKExtentInfo>("RW", 4096, "SPARSE", "Windows Server-s005.vmdk", -1).get());
       },
       0},
      {"crlf_windows_1252", [](CVMDKDescriptor&) {}, 1},
      {"latin1_file_name", [](CVMDKDescriptor&) {}, 0},
      {"differencing",
       [](CVMDKDescriptor& d) {
         d.setContentID(0xe7f10a22);
         d.setParentContentID(0x5d0c0e11);
         d.setKxEncryptionAlgorithm("AES-256-CBC");
       },
       0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::CLogCapture log;
    kx::P<CVMDKDescriptor> source = parse(readTestFile(std::string(c.name) + ".vmdk"));
    EXPECT_EQ(log.count(kx::LogLevel::Warning), c.warnings);
    // The changes go to a copy of a copy; neither copy shares lines with its
    // source, and assigning replaces all that was there.
    const std::string loaded = text(*source);
    CVMDKDescriptor copy(*source);
    auto descriptor = kx::create<CVMDKDescriptor>();
    descriptor->setValue("old", "1", false, true);
    *descriptor = copy;
    c.change(*descriptor);
    EXPECT_EQ(text(*source), loaded);
    EXPECT_EQ(text(copy), loaded);
    const std::string expected = readTestFile(std::string(c.name) + ".expected");
    EXPECT_EQ(store(*descriptor, static_cast<int>(expected.size()) + 37, kx::TBuffer<unsigned char>(512)),
              expected + std::string(37, '\0'));
    EXPECT_EQ(text(*parse(expected)), expected);  // what was stored reads back to the same document
  }
}

// One letter per line of the parsed document: G generic, N name/value, E extent.
TEST(DescriptorTest, LoadAndToStringNormaliseLines) {
  const struct {
    std::string input;
    const char *output, *kinds;
  } cases[] = {
      {"", "", ""},
      {std::string("\0a=1\n", 5), "", ""},
      {std::string("a=1\0b=2\n", 8), "a=1\n", "N"},
      {"a=1", "a=1\n", "N"},
      {"a=1\n\n", "a=1\n\n", "NG"},
      {"x=\"\nz=\"open\n", "x=\"\"\nz=\"open\n", "NN"},
      {"=5\nmy key=5\n", "=5\nmy key=5\n", "GG"},
      {"#a=b\n #a=b\n", "#a=b\n#a=b\n", "GN"},
      {"a=b=c\n", "a=b=c\n", "N"},
      {"a = b\n\tkey\t=\t\"v w\"\t\n", "a=b\nkey=\"v w\"\n", "NN"},
      {"ddb.x=\"y\"\nddb.n=2\nDDB.x = 1\n", "ddb.x = \"y\"\nddb.n = 2\nDDB.x=1\n", "NNN"},
      {"a=1\r\n# comment\r\n\r\nb=\"2\"\r\n", "a=1\n# comment\r\n\r\nb=\"2\"\n", "NGGN"},
      {"RW 8 SPARSE \"a=b.vmdk\"", "RW 8 SPARSE \"a=b.vmdk\"\n", "E"},
      {"RW 2048 ZERO\nRW 8 SPARSE x\n", "RW 2048 ZERO\nRW 8 SPARSE x\n", "GG"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input);
    test::CLogCapture log;
    kx::P<CVMDKDescriptor> descriptor = parse(c.input);
    EXPECT_EQ(text(*descriptor), c.output);
    std::string kinds;
    for (const auto& entry : descriptor->getEntries()) {
      kinds += dynamic_cast<CVMDKExtentInfo*>(entry.get())                    ? 'E'
               : dynamic_cast<CVMDKDescriptor::CNameValueEntry*>(entry.get()) ? 'N'
                                                                              : 'G';
    }
    EXPECT_EQ(kinds, c.kinds);
    EXPECT_TRUE(log.lines.empty());
  }
}

// A value set again keeps its line's place, spelling and quotes.
TEST(DescriptorTest, NamesMatchWithoutCaseAndFirstDuplicateWins) {
  kx::P<CVMDKDescriptor> d = parse("cid=\"1\"\nCID=2\ncreateType=x\nDDB.adapterType=y\n");
  EXPECT_EQ(d->getContentID(), 1u);
  d->setContentID(5);
  d->setCreateType("z");
  d->setAdapterType("ide");
  EXPECT_EQ(text(*d), "cid=\"5\"\nCID=2\ncreateType=z\nDDB.adapterType=ide\n");
  kx::String value = "stale";
  EXPECT_FALSE(d->tryGetValue("missing", value));
  EXPECT_TRUE(value.isEmpty());
  EXPECT_EQ(messageOf([&] { d->getValue("version"); }), "VMDK descriptor value 'version' not found.");
}

// A comment between the header and the extents, and a second run of extents
// behind the data base.
TEST(DescriptorTest, HeaderInsertIndexKeepsNewHeaderLinesInOrder) {
  kx::P<CVMDKDescriptor> d = parse(
      "# Disk DescriptorFile\nversion=1\nCID=1\n\n# Extent description\n"
      "RW 8 SPARSE \"a\"\nRW 8 SPARSE \"b\"\n#DDB\nddb.x = \"1\"\nRW 8 SPARSE \"z\"\n");
  EXPECT_EQ(d->getHeaderInsertIndex(), 3);
  d->setValue("new", "1", false, true);
  d->setValue("newer", "2", true, true);
  d->addGenericLine("# note", true);
  d->setValue("tail", "3", false, false);
  d->addGenericLine("# end", false);
  d->addExtentEntry(kx::create<CVMDKExtentInfo>("RW", 8, "SPARSE", "c", -1).get());
  kx::TArray<kx::P<CVMDKExtentInfo>> extents(1);  // getExtentEntries appends
  d->getExtentEntries(extents);
  ASSERT_EQ(extents.size(), 5u);
  EXPECT_EQ(extents[3]->getFilename(), "c");
  EXPECT_EQ(
      text(*d),
      "# Disk DescriptorFile\nversion=1\nCID=1\nnew=1\nnewer=\"2\"\n# note\n\n# Extent description\n"
      "RW 8 SPARSE \"a\"\nRW 8 SPARSE \"b\"\nRW 8 SPARSE \"c\"\n#DDB\nddb.x = \"1\"\nRW 8 SPARSE \"z\"\n"
      "tail=3\n# end\n");
  // Name/value lines behind the first extent don't count for the header.
  for (const auto& [input, index] : {std::pair{"# c\nRW 8 SPARSE \"a\"\nx=1\n", 0},
                                     {"# only comments\n\n", 0},
                                     {"a=1\n# c\nb=2\n# d\n", 3}}) {
    EXPECT_EQ(parse(input)->getHeaderInsertIndex(), index) << input;
  }
}

// Built from nothing, the way a new disk's is: the header grows from the top,
// the first extent goes to the end, "ddb." keys behind it. Each key has its
// own quoting. Only parentCID and the kx flags have defaults.
TEST(DescriptorTest, TypedAccessorsWriteAndReadTheirKeys) {
  auto d = kx::create<CVMDKDescriptor>();
  d->addGenericLine("# Disk DescriptorFile", true);
  d->addGenericLine("# Extent description", false);
  d->addExtentEntry(kx::create<CVMDKExtentInfo>("RW", 8, "SPARSE", "a", -1).get());
  EXPECT_EQ(d->getParentContentID(), 0xffffffffu);
  EXPECT_FALSE(d->getKxCreateExtentFilesOnDemand());
  EXPECT_EQ(d->getKxEncryptionAlgorithm(), "");
  for (const auto& getter : std::initializer_list<std::function<void()>>{
           [&] { d->getVersion(); }, [&] { d->getAdapterType(); }, [&] { d->getKxEncryptionIV(); }}) {
    EXPECT_THROW(getter(), kx::CError);
  }

  kx::TBuffer<unsigned char> bytes;
  bytes.assign(reinterpret_cast<const unsigned char*>("\x00\xab\x10\xff"), 4);
  d->setVersion(-3);
  d->setContentID(0xABCD);
  d->setParentContentID(7);
  d->setCreateType("streamOptimized");
  d->setParentFileNameHint("../p.vmdk");
  d->setAdapterType("ide");
  d->setGeometryCylinders(16383);
  d->setGeometryHeads(255);
  d->setGeometrySectors(63);
  d->setKxCreateExtentFilesOnDemand(true);
  d->setKxEncryptionAlgorithm("AES-256-CBC");
  d->setKxEncryptionIV(bytes);
  d->setKxEncryptionKeyDerivationAlgorithm("PBKDF2");
  d->setKxEncryptionKeyDerivationSalt(bytes);
  d->setKxEncryptedEncryptionKey(bytes);
  d->setKxEncryptionKeyHashAlgorithm("SHA-256");
  d->setKxEncryptionKeyHash(bytes);
  const std::string expected =
      "# Disk DescriptorFile\nversion=-3\nCID=abcd\nparentCID=7\ncreateType=\"streamOptimized\"\n"
      "parentFileNameHint=\"../p.vmdk\"\nkxCreateExtentFilesOnDemand=\"true\"\nkxEncAlg=AES-256-CBC\n"
      "kxEncIV=00ab10ff\nkxEncKeyDerivAlg=PBKDF2\nkxEncKeyDerivSalt=00ab10ff\nkxEncEncKey=00ab10ff\n"
      "kxEncKeyHashAlg=SHA-256\nkxEncKeyHash=00ab10ff\n# Extent description\nRW 8 SPARSE \"a\"\n"
      "ddb.adapterType = \"ide\"\nddb.geometry.cylinders = \"16383\"\nddb.geometry.heads = \"255\"\n"
      "ddb.geometry.sectors = \"63\"\n";
  EXPECT_EQ(text(*d), expected);
  // The getters that no disk operation calls read the keys that the setters wrote.
  const kx::P<CVMDKDescriptor> r = parse(expected);
  EXPECT_EQ(std::make_tuple(r->getVersion(), r->getAdapterType(), r->getGeometryHeads(), r->getGeometrySectors()),
            std::make_tuple(-3, kx::String("ide"), int64_t{255}, int64_t{63}));

  // Bad values fail only in their getters.
  d = parse("version=one\nCID=0x1a\nparentCID=0x1a\nkxEncIV=abc\n");
  EXPECT_THROW(d->getVersion(), kx::CError);
  EXPECT_THROW(d->getContentID(), kx::CError);
  EXPECT_EQ(d->getParentContentID(), 0x1au);
  EXPECT_THROW(d->getKxEncryptionIV(), kx::CError);
  // A number beyond its type is damaged data, never cut down to fit.
  d = parse("version=4294967297\nCID=1ffffffff\nparentCID=0x100000000\n");
  EXPECT_EQ(test::ioErrorCode([&] { d->getVersion(); }), 5);
  EXPECT_EQ(test::ioErrorCode([&] { d->getContentID(); }), 5);
  EXPECT_EQ(test::ioErrorCode([&] { d->getParentContentID(); }), 5);
  EXPECT_EQ(parse("version=-2147483648\n")->getVersion(), -2147483647 - 1);
}

TEST(DescriptorTest, DecodingFollowsTheDeclaredEncoding) {
  const std::string latin1 = "Using Latin-1 encoding instead.";
  const struct {
    std::string input;
    const wchar_t* name;
    std::string warning;  // empty: none
  } cases[] = {
      {"n=\"\xc3\xa9\"\n", L"\u00e9", ""},
      {"encoding=\"utf_8\"\nn=\"\xc3\xa9\"\n", L"\u00e9", ""},
      {"ENCODING=\"Latin-1\"\nn=\"\xe9\"\n", L"\u00e9", ""},
      {"encoding=\"iso_8859-1\"\nn=\"\xc3\xa9\"\n", L"\u00c3\u00a9", ""},
      {"encoding=\"windows-1252\"\nn=\"\xe9\"\n", L"\u00e9",
       "Unknown VMDK descriptor encoding 'windows-1252'. Using Latin-1 instead."},
      {"n=\"\xe9\"\n", L"\u00e9", "Ignoring VMDK descriptor decoding error (encoding: ''. " + latin1},
      {"encoding=\"UTF-8\"\nn=\"\xff\xfe\"\n", L"\u00ff\u00fe",
       "Ignoring VMDK descriptor decoding error (encoding: 'UTF-8'. " + latin1},
      // Forms that some decoders take but that have no UTF-8 to store back:
      // above U+10FFFF, overlong zeros, a surrogate.
      {"n=\"\xf4\x90\x80\x80\"\n", L"\u00f4\u0090\u0080\u0080",
       "Ignoring VMDK descriptor decoding error (encoding: ''. " + latin1},
      {"n=\"\xe0\x80\x80\xf0\x80\x80\x80\"\n", L"\u00e0\u0080\u0080\u00f0\u0080\u0080\u0080",
       "Ignoring VMDK descriptor decoding error (encoding: ''. " + latin1},
      {"n=\"\xed\xa0\x80\"\n", L"\u00ed\u00a0\u0080",
       "Ignoring VMDK descriptor decoding error (encoding: ''. " + latin1},
  };
  const kx::TBuffer<unsigned char> zeros(256);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input);
    test::CLogCapture log;
    kx::P<CVMDKDescriptor> d = parse(c.input);
    EXPECT_EQ(d->getValue("n"), kx::String(c.name));
    EXPECT_EQ(parse(store(*d, 256, zeros))->getValue("n"), kx::String(c.name));
    ASSERT_EQ(log.lines.size(), c.warning.empty() ? 0u : 1u);
    if (!c.warning.empty()) {
      EXPECT_EQ(log.lines[0].level, kx::LogLevel::Warning);
      EXPECT_EQ(log.lines[0].text, c.warning);
    }
  }
}

TEST(DescriptorTest, StoreRefusesBeforeWritingAnythingAndPadsWithTheBuffer) {
  kx::P<CVMDKDescriptor> d = parse("a=1\n");
  const std::string stored = "a=1\nencoding=\"UTF-8\"\n";  // 21 bytes
  kx::TBuffer<unsigned char> pad;
  pad.assign(reinterpret_cast<const unsigned char*>("abcd"), 4);
  kx::CBufferStream stream;
  EXPECT_EQ(
      messageOf([&] { d->store(stream, 20, pad); }),
      "Internal error: actual VMDK descriptor size exceeds target size (actual size: 21, target size: 20)");
  EXPECT_EQ(messageOf([&] { d->store(stream, 26, pad); }),
            "Internal error: pad buffer too small (size: 4, needed: 5");
  EXPECT_EQ(stream.getLength(), 0);
  // The encoding line went in with the first attempt, and stays.
  EXPECT_EQ(text(*d), stored);
  EXPECT_EQ(store(*d, 21, kx::TBuffer<unsigned char>()), stored);
  EXPECT_EQ(store(*d, 24, pad), stored + "abc");

  // Padding repeats the buffer as often as needed.
  const std::pair<int, const char*> cases[] = {{-1, ""}, {0, ""}, {8, "abcdabcd"}, {10, "abcdabcdab"}};
  for (const auto& [size, bytes] : cases) {
    kx::CBufferStream padded;
    zarn::vmdkWritePadding(padded, size, pad);
    EXPECT_EQ(bytesOf(padded), bytes) << size;
  }
  EXPECT_THROW(zarn::vmdkWritePadding(stream, 1, kx::TBuffer<unsigned char>()), kx::CError);

  // A character that a reader could not get back stops the store before it
  // writes: a zero ends the text, and U+110000 has no UTF-8 form.
  for (const unsigned bad : {0u, 0x110000u}) {
    d->setValue("a", kx::String(wxString(wxUniChar(bad), 1)), false, true);
    EXPECT_THROW(d->store(stream, 64, kx::TBuffer<unsigned char>(64)), kx::CInvalidArgError) << bad;
    EXPECT_EQ(stream.getLength(), 0);
  }
}

}  // namespace
