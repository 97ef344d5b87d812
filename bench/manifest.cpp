// Manifest intake: what it costs to read a manifest of one quality with 1 k to 1 M segments and to
// list what is to be downloaded, against libxml2's own tree of the same bytes (the floor). Stands
// for the wait between the arrival of a manifest and the first request, and for the memory that a
// long presentation takes on a device.
//
//   bench_manifest                     all sizes
//   bench_manifest --sizes 1000,10000  some sizes
//   bench_manifest --check             the smallest size, to see that lists are right
//   bench_manifest --write FILE        into section "Manifest intake" of a Markdown file
//
// Every measurement runs in a child of its own that has parsed nothing before, as an application
// meets its manifest; times are the best of several children, and for small manifests of several
// rounds in each.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <malloc.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/manifest_samples.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNPlaylistFactory.h"
#include "playlist/QNQuality.h"
#include "playlist/QNTrack.h"

namespace {

using bench::Form;

const char* const kBaseURL = "https://media.example/presentations/42/manifest.mpd";

// What one process measures and prints as "name value" lines.
using Figures = std::map<std::string, double>;

// Bytes in use on the heap, with the allocator's own overhead.
double heapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

// A line of /proc/self/status in bytes.
double statusBytes(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":"))
      return std::strtod(line.c_str() + name.size() + 1, nullptr) * 1024;
  }
  return 0;
}

// How far the resident set rises above where it stands while `work` runs.
double peakBytes(const std::function<void()>& work) {
  std::ofstream("/proc/self/clear_refs") << "5";  // forget the peak so far
  const double before = statusBytes("VmRSS");
  work();
  return std::max(0.0, statusBytes("VmHWM") - before);
}

// Processor time, user and kernel: nothing here waits, and other work on the machine counts little.
double millisecondsNow() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double millisecondsOf(const std::function<void()>& work) {
  const double begin = millisecondsNow();
  work();
  return millisecondsNow() - begin;
}

// Rounds within one child: where a manifest is small, one round measures little but first page
// faults.
int rounds(size_t segments) {
  if (segments >= 100000) return 1;
  return segments >= 10000 ? 10 : 50;
}

int children(size_t segments) {
  return segments >= 1000000 ? 3 : 5;
}

xmlDocPtr parseDOM(const platform::Data& bytes) {
  xmlDocPtr document =
      xmlReadMemory(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()),
                    nullptr, nullptr, XML_PARSE_NONET);
  if (!document) throw std::runtime_error("libxml2 refuses the manifest");
  return document;
}

Figures measureFloor(const platform::DataPtr& bytes, size_t segments) {
  Figures figures;
  xmlDocPtr document = nullptr;
  figures["parse"] = INFINITY;
  for (int i = 0; i < rounds(segments); ++i) {
    const auto round = [&] {
      figures["parse"] =
          std::min(figures["parse"], millisecondsOf([&] { document = parseDOM(*bytes); }));
    };
    if (i == 0) {
      figures["peak"] = peakBytes(round);
    } else {
      round();
    }
    xmlFreeDoc(document);
  }
  return figures;
}

QNResourceListPtr listOf(const std::shared_ptr<QNPlaylist>& playlist) {
  const auto& quality = playlist->movies().at(0)->tracks().at(0)->qualities().at(0);
  return quality->resourceBuilder()->fillResourcesWithBaseURL(std::string(kBaseURL));
}

// By how much `work` makes the heap grow. On a thread of its own: what the allocator sets aside for
// a thread counts as in use until it ends.
double keptBytes(const std::function<void()>& work) {
  const double before = heapBytes();
  std::async(std::launch::async, work).get();
  return heapBytes() - before;
}

Figures measureOurs(const platform::DataPtr& bytes, Form form, size_t segments) {
  Figures figures;
  std::shared_ptr<QNPlaylist> playlist;
  QNResourceListPtr list;
  const auto parse = [&] { playlist = QNPlaylistFactory::generateWithData(bytes); };
  const auto fill = [&] { list = listOf(playlist); };
  figures["peak"] = peakBytes([&] { figures["parse"] = millisecondsOf(parse); });
  figures["list"] = millisecondsOf(fill);

  figures["resources"] = static_cast<double>(list->size());
  if (list->size() != bench::expectedResources(form, segments) ||
      list->back()->referenceURL() != bench::expectedLastReference(form, segments)) {
    throw std::runtime_error("the list is wrong: " + std::to_string(list->size()) +
                             " resources, the last one " + list->back()->referenceURL());
  }
  for (int i = 1; i < rounds(segments); ++i) {
    list.reset();
    playlist.reset();
    figures["parse"] = std::min(figures["parse"], millisecondsOf(parse));
    figures["list"] = std::min(figures["list"], millisecondsOf(fill));
  }

  double text = 0;
  for (const auto& resource : *list)
    text += static_cast<double>(resource->referenceURL().size());
  list.reset();
  playlist.reset();
  mallopt(M_ARENA_MAX, 1);  // heapBytes sees one arena
  figures["kept.playlist"] = keptBytes(parse);
  figures["kept.list"] = keptBytes(fill) - text;
  return figures;
}

// Runs `work` in a child and reads the figures that it prints.
Figures inChild(const std::function<Figures()>& work) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("no pipe");
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) {
    int status = 0;
    FILE* out = fdopen(ends[1], "w");
    try {
      for (const auto& [name, value] : work())
        std::fprintf(out, "%s %.17g\n", name.c_str(), value);
    } catch (const std::exception& exception) {
      std::cerr << "bench_manifest: " << exception.what() << std::endl;
      status = 1;
    }
    std::fclose(out);
    _exit(status);
  }
  close(ends[1]);
  FILE* in = fdopen(ends[0], "r");
  Figures figures;
  char name[64];
  double value = 0;
  while (std::fscanf(in, "%63s %lf", name, &value) == 2)
    figures[name] = value;
  std::fclose(in);
  int status = 0;
  waitpid(child, &status, 0);
  if (status != 0) throw std::runtime_error("a measurement failed");
  return figures;
}

// Keeps the smaller of each figure.
void improve(Figures& best, const Figures& figures) {
  for (const auto& [name, value] : figures) {
    const auto [at, isNew] = best.emplace(name, value);
    if (!isNew) at->second = std::min(at->second, value);
  }
}

struct Row {
  Form form;
  size_t segments;
  double bytes;
  Figures floor;
  Figures ours;

  double total() const { return ours.at("parse") + ours.at("list"); }
  double ratio() const { return total() / floor.at("parse"); }
  double nsPerResource() const { return ours.at("list") * 1e6 / ours.at("resources"); }
  double keptPerSegment() const { return ours.at("kept.playlist") / static_cast<double>(segments); }
  double keptPerResource() const { return ours.at("kept.list") / ours.at("resources"); }
};

std::string cell(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::string table(const std::vector<Row>& rows) {
  std::ostringstream out;
  out << "| form | segments | bytes | DOM, ms | parse, ms | list, ms | parse + list : DOM | list, "
         "ns each | "
         "DOM peak, MiB | our peak, MiB | kept per segment, B | kept per resource, B |\n"
         "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n";
  const double mib = 1 << 20;
  for (const auto& row : rows) {
    const bool xml = bench::isXMLBound(row.form);
    out << "| " << bench::nameOf(row.form) << " | " << row.segments << " | "
        << cell("%.0f", row.bytes) << " | " << cell("%.3f", row.floor.at("parse")) << " | "
        << cell("%.3f", row.ours.at("parse")) << " | " << cell("%.3f", row.ours.at("list")) << " | "
        << (xml ? cell("%.2f", row.ratio()) : "") << " | " << cell("%.0f", row.nsPerResource())
        << " | " << cell("%.1f", row.floor.at("peak") / mib) << " | "
        << cell("%.1f", row.ours.at("peak") / mib) << " | "
        << (xml ? cell("%.1f", row.keptPerSegment()) : "") << " | "
        << cell("%.1f", row.keptPerResource()) << " |\n";
  }
  return out.str();
}

const Row* find(const std::vector<Row>& rows, Form form, size_t segments) {
  const auto at = std::find_if(rows.begin(), rows.end(), [&](const Row& row) {
    return row.form == form && row.segments == segments;
  });
  return at == rows.end() ? nullptr : &*at;
}

// The size from which on rows of that form stay within `limit` of the floor; 0 when none does.
size_t reachedFrom(const std::vector<Row>& rows, Form form, double limit) {
  size_t from = 0;
  for (const auto& row : rows) {  // by size
    if (row.form != form) continue;
    if (row.ratio() > limit) {
      from = 0;
    } else if (from == 0) {
      from = row.segments;
    }
  }
  return from;
}

// The targets, each met or missed by what was just measured. Peaks count from 10 k segments on:
// below that both are the pages of the program itself.
std::string targets(const std::vector<Row>& rows) {
  std::ostringstream out;
  const auto line = [&out](const std::string& what, double value, double limit) {
    out << "- " << (value <= limit ? "met" : "MISSED") << ": " << what << ": "
        << cell("%.2f", value) << " (at most " << cell("%g", limit) << ")\n";
  };
  for (const Form form : bench::kForms) {
    const std::string name = bench::nameOf(form);
    double ratio = 0, ns = 0, peak = 0, kept = 0, each = 0;
    for (const auto& row : rows) {
      if (row.form != form) continue;
      ratio = std::max(ratio, row.ratio());
      ns = std::max(ns, row.nsPerResource());
      if (row.segments >= 10000) {
        peak = std::max(peak, row.ours.at("peak") / row.floor.at("peak"));
      }
      kept = std::max(kept, row.keptPerSegment());
      each = std::max(each, row.keptPerResource());
    }
    if (each == 0) continue;
    if (bench::isXMLBound(form)) {
      line(name + ", parse and list against the DOM parse", ratio, 1.0);
      const size_t from = reachedFrom(rows, form, 0.6);
      out << "- reached for: 0.6 of the DOM parse: "
          << (from == 0 ? "at no size" : "from " + std::to_string(from) + " segments on") << "\n";
      line(name + ", peak memory against the DOM's, from 10 k on", peak, 1.0);
    } else {
      line(name + ", ns for each listed resource", ns, 150);
    }
    if (form == Form::Timeline) line(name + ", bytes kept for each S", kept, 24);
    line(name + ", bytes kept for each resource beyond its text", each, 128);
    const Row* small = find(rows, form, 100000);
    const Row* large = find(rows, form, 1000000);
    if (small && large && bench::isXMLBound(form)) {
      const double own = large->total() / small->total();
      const double floor = large->floor.at("parse") / small->floor.at("parse");
      line(name + ", growth from 100 k to 1 M against the DOM's growth", own / floor, 1.1);
    }
  }
  return out.str();
}

std::string machine() {
  std::string model = "unknown processor";
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);) {
    if (line.starts_with("model name")) {
      model = line.substr(line.find(':') + 2);
      break;
    }
  }
  utsname system{};
  uname(&system);
  return model + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " cores, " +
         system.sysname + " " + system.machine + ", libxml2 " LIBXML_DOTTED_VERSION;
}

const char* const kHeading = "## Manifest intake";

// Replaces the section of that heading, or adds it at the end.
void writeSection(const std::string& path, const std::string& body) {
  std::string text;
  if (std::ifstream in(path); in) {
    std::ostringstream all;
    all << in.rdbuf();
    text = all.str();
  }
  if (text.empty()) text = "# Performance\n\n";
  size_t begin = text.find(kHeading);
  if (begin == std::string::npos) {
    if (!text.ends_with("\n\n")) text += text.ends_with("\n") ? "\n" : "\n\n";
    begin = text.size();
  }
  const size_t next = begin == text.size() ? std::string::npos : text.find("\n## ", begin);
  const std::string rest = next == std::string::npos ? "" : text.substr(next);
  std::ofstream(path) << text.substr(0, begin) << kHeading << "\n\n" << body << rest;
}

std::string report(const std::vector<Row>& rows) {
  return "One quality with as many media segments as the table says; "
         "`build/release/bench/bench_manifest --write "
         "docs/performance.md` measures it again. Measured on: " +
         machine() +
         ".\n\nTimes are processor time, user and kernel. DOM is libxml2's own tree of the same "
         "bytes, the floor of a manifest reader that "
         "keeps a tree. "
         "Parse is from bytes to playlist, list is the quality's resource list. Peaks are what the "
         "resident set rises "
         "while parsing. Kept per segment is the playlist's heap, kept per resource the list's "
         "beyond the reference "
         "texts.\n\n" +
         table(rows) + "\nTargets, each against the worst of all sizes:\n\n" + targets(rows);
}

std::vector<size_t> parseSizes(const std::string& text) {
  std::vector<size_t> sizes;
  std::istringstream in(text);
  for (std::string size; std::getline(in, size, ',');)
    sizes.push_back(std::stoul(size));
  return sizes;
}

int run(const std::vector<std::string>& arguments) {
  std::vector<size_t> sizes{1000, 10000, 100000, 1000000};
  std::string file;
  bool check = false;
  for (size_t i = 1; i < arguments.size(); ++i) {
    const bool hasValue = i + 1 < arguments.size();
    if (arguments[i] == "--check") {
      check = true;
      sizes = {1000};
    } else if (arguments[i] == "--sizes" && hasValue) {
      sizes = parseSizes(arguments[++i]);
    } else if (arguments[i] == "--write" && hasValue) {
      file = arguments[++i];
    } else {
      std::cerr << "usage: bench_manifest [--check | --sizes N,N] [--write FILE]\n";
      return 2;
    }
  }
  std::vector<Row> rows;
  xmlInitParser();
  for (const Form form : bench::kForms) {
    for (const size_t size : sizes) {
      const auto bytes = std::make_shared<const platform::Data>(bench::manifest(form, size));
      malloc_trim(0);
      Row row{form, size, static_cast<double>(bytes->size()), {}, {}};
      for (int i = 0; i < children(size); ++i) {  // in turn, so that both meet the same machine
        improve(row.floor, inChild([&] { return measureFloor(bytes, size); }));
        improve(row.ours, inChild([&] { return measureOurs(bytes, form, size); }));
      }
      rows.push_back(std::move(row));
    }
  }
  const std::string text = check ? table(rows) : report(rows);
  std::cout << text;
  if (!file.empty()) writeSection(file, text);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run({argv, argv + argc});
  } catch (const std::exception& exception) {
    std::cerr << "bench_manifest: " << exception.what() << "\n";
    return 1;
  }
}
