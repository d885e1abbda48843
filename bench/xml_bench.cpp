// XmlDocument figures: load of a 10 MB generated document of 100,000 elements, the walk of all
// of them, a parse from memory, a build by addElement, and the parse of a flawed document whose
// end tags match none of the many open elements.
//
//   xml_bench [benchmark options]     the Google Benchmark figures
//   xml_bench --generate FILE         writes the generated document
//   xml_bench --load-walk FILE        one load and one walk, for whole-process timing
//                                     (bench/xml_vs_xmllint.sh compares it with xmllint --noout)
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "foundation/XmlDocument.h"

namespace {

constexpr int kJobs = 20000;  // each with four children: 100,000 elements below the root

std::string GeneratedDocument() {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<Jobs version=\"2\">\r\n";
  text.reserve(10500000);
  const std::string filler =
      "Firmware package for the controller; flashes the boot block &amp; the main image, keeps the "
      "settings, caf\xC3\xA9 na\xC3\xAFve \xE6\x97\xA5\xE6\x9C\xAC, checks the image with its signature "
      "&lt;sha256&gt; before it writes anything, and reports the result to the update engine at the end.";
  for (int i = 0; i < kJobs; ++i) {
    std::string n = std::to_string(i);
    text += "<Job id=\"" + n + "\" state=\"ready\" kind='flash'>\r\n";
    text += "<Name>Component " + n + "</Name>\r\n";
    text += "<Path>BIOS/Vendor/Board" + n + "/bios_" + n + ".bin</Path>\r\n";
    text += "<Status code=\"0\"/>\r\n";
    text += "<Text>" + filler + filler.substr(0, 60) + "<![CDATA[raw <" + n + ">]]></Text>\r\n";
    text += "</Job>\r\n";
  }
  text += "</Jobs>\r\n";
  return text;
}

const std::filesystem::path& GeneratedFile() {
  static const std::filesystem::path path = [] {
    std::filesystem::path p = std::filesystem::temp_directory_path() / "em_xml_bench_10mb.xml";
    std::ofstream(p, std::ios::binary) << GeneratedDocument();
    return p;
  }();
  return path;
}

// Visits every element and reads the data of those without children; returns the count.
long WalkAll(XmlDocument& doc) {
  long count = 0;
  size_t dataChars = 0;
  doc.resetPosition();
  int depth = 0;
  while (true) {
    if (doc.findElement()) {
      ++count;
      dataChars += doc.getData().size();
      doc.intoElement();
      ++depth;
      continue;
    }
    if (depth == 0) break;
    doc.outOfElement();
    --depth;
  }
  benchmark::DoNotOptimize(dataChars);
  return count;
}

void BM_XmlLoad(benchmark::State& state) {
  const WString path = GeneratedFile().u16string();
  for (auto _ : state) {
    XmlDocument doc;
    if (!doc.load(path)) state.SkipWithError("load failed");
    benchmark::DoNotOptimize(doc.elementCount());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(std::filesystem::file_size(GeneratedFile())));
}
BENCHMARK(BM_XmlLoad)->Unit(benchmark::kMillisecond);

void BM_XmlWalk(benchmark::State& state) {
  XmlDocument doc;
  doc.load(GeneratedFile().u16string());
  for (auto _ : state) {
    long count = WalkAll(doc);
    if (count != kJobs * 5 + 1) state.SkipWithError("walk missed elements");
  }
  state.SetItemsProcessed(state.iterations() * (kJobs * 5 + 1));
}
BENCHMARK(BM_XmlWalk)->Unit(benchmark::kMillisecond);

void BM_XmlParseFromMemory(benchmark::State& state) {
  const WString text = WFromUtf8(GeneratedDocument());
  XmlDocument doc;
  for (auto _ : state) {
    doc.setDocument(text);
    benchmark::DoNotOptimize(doc.elementCount());
  }
}
BENCHMARK(BM_XmlParseFromMemory)->Unit(benchmark::kMillisecond);

void BM_XmlBuild(benchmark::State& state) {
  for (auto _ : state) {
    XmlDocument doc;
    doc.setDocument(u"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n");
    doc.addElement(u"Jobs");
    doc.intoElement();
    for (int i = 0; i < kJobs; ++i) {
      doc.addElement(u"Job");
      doc.intoElement();
      doc.addElement(u"Name", u"Component");
      doc.addElement(u"Path", u"BIOS/Vendor/Board/bios.bin");
      doc.addElement(u"Status");
      doc.addElement(u"Text", u"text with <markup> & more");
      doc.outOfElement();
    }
    benchmark::DoNotOptimize(doc.getDocument().size());
  }
}
BENCHMARK(BM_XmlBuild)->Unit(benchmark::kMillisecond);

// 40,000 open elements followed by 40,000 end tags that match none of them (280 KB): each end
// tag is looked for among all open elements.
void BM_XmlStrayEndTags(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  WString text;
  text.reserve(static_cast<size_t>(n) * 7);
  for (int i = 0; i < n; ++i) text += u"<a>";
  for (int i = 0; i < n; ++i) text += u"</b>";
  XmlDocument doc;
  for (auto _ : state) {
    if (doc.setDocument(text)) state.SkipWithError("taken as well formed");
    benchmark::DoNotOptimize(doc.elementCount());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_XmlStrayEndTags)->Arg(10000)->Arg(40000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--generate") == 0) {
    std::ofstream out(argv[2], std::ios::binary);
    out << GeneratedDocument();
    return out ? 0 : 1;
  }
  if (argc == 3 && std::strcmp(argv[1], "--load-walk") == 0) {
    XmlDocument doc;
    bool ok = doc.load(std::filesystem::u8path(argv[2]).u16string());
    long count = WalkAll(doc);
    std::printf("%s %ld elements\n", ok ? "well-formed" : "not well-formed", count);
    return ok ? 0 : 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove(GeneratedFile(), ec);
  return 0;
}
