#include "pipeline.h"

#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstring>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <thread>

#include "formats.h"

namespace qtool {

std::vector<std::string> SplitWords(const std::string &text) {
    std::vector<std::string> words;
    std::string cur;
    bool any = false;
    char quote = 0;
    for (char c : text) {
        if (quote) {
            if (c == quote) quote = 0;
            else cur += c;
        } else if (c == '"' || c == '\'') {
            quote = c, any = true;
        } else if (std::isspace(static_cast<unsigned char>(c))) {
            if (any || !cur.empty()) words.push_back(cur), cur.clear(), any = false;
        } else {
            cur += c;
        }
    }
    if (quote) throw UsageError("unbalanced quote in: " + text);
    if (any || !cur.empty()) words.push_back(cur);
    return words;
}

std::vector<Step> ParsePipeline(const std::string &text) {
    std::vector<Step> steps;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t bar = text.find('|', start);
        if (bar == std::string::npos) bar = text.size();
        const std::vector<std::string> words = SplitWords(text.substr(start, bar - start));
        if (words.empty()) throw UsageError("empty step in pipeline: " + text);
        const Op *op = FindOp(words[0]);
        if (op == nullptr) throw UsageError("unknown operation '" + words[0] + "' (see: quarvel list)");
        Step step{op, {}};
        const std::vector<std::string> rest =
            ParseArgs(*op, std::vector<std::string>(words.begin() + 1, words.end()), &step.values);
        if (!rest.empty()) throw UsageError(op->name + ": unexpected '" + rest[0] + "' in pipeline");
        steps.push_back(std::move(step));
        start = bar + 1;
    }
    return steps;
}

Page ApplySteps(const std::vector<Step> &steps, Page page, std::vector<std::pair<std::string, Measure>> *measures) {
    for (const Step &s : steps) {
        if (s.op->image) {
            Page next(s.op->apply(page.get(), s.values));
            if (!next) throw OperationError(s.op->name + " refused the page");
            page = std::move(next);
        } else if (measures != nullptr) {
            measures->emplace_back(s.op->name, s.op->measure(page.get(), s.values));
        }
    }
    return page;
}

namespace {

struct Job {
    std::size_t file;
    std::size_t page;
};

std::string OutputPath(const std::string &dir, const std::string &input, const std::string &format) {
    std::filesystem::path in(input);
    std::string ext = format.empty() ? in.extension().string() : "." + format;
    // Without a chosen format, JPEG inputs come out as PNG: cleaned pages
    // are not recompressed with loss, and 1-bit results have no JPEG form.
    if (FormatOfPath("x" + ext) == Format::kUnknown || (format.empty() && FormatOfPath("x" + ext) == Format::kJpeg))
        ext = ".png";
    return (std::filesystem::path(dir) / (in.stem().string() + ext)).string();
}

// Runs fn(0 .. n-1) on `threads` threads, each index once.
template <class F>
void ParallelFor(std::size_t n, int threads, F fn) {
    std::atomic<std::size_t> next{0};
    auto worker = [&] {
        for (std::size_t i; (i = next.fetch_add(1)) < n;) fn(i);
    };
    std::vector<std::thread> pool;
    for (int t = 1; t < std::min<int>(threads, static_cast<int>(n)); ++t) pool.emplace_back(worker);
    worker();
    for (std::thread &t : pool) t.join();
}

std::string Clock(double seconds) {
    const int s = static_cast<int>(seconds + 0.5);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%d:%02d", s / 60, s % 60);
    return buf;
}

}  // namespace

int RunBatch(const std::vector<Step> &steps, const std::vector<std::string> &files, const RunOptions &options) {
    const auto started = std::chrono::steady_clock::now();
    std::error_code ec;
    std::filesystem::create_directories(options.outDir, ec);
    if (ec) {
        std::fprintf(stderr, "quarvel: %s: cannot create output folder (%s)\n", options.outDir.c_str(), ec.message().c_str());
        return 5;
    }
    // Read every file first (in parallel; a bad file is reported once,
    // before any work), then process the pages in parallel.
    std::vector<std::vector<Page>> inputs(files.size());
    std::vector<std::string> readErrors(files.size());
    ParallelFor(files.size(), options.jobs, [&](std::size_t f) {
        try {
            inputs[f] = ReadImage(files[f]);
        } catch (const FormatError &e) {
            readErrors[f] = e.what();
        }
    });
    std::vector<Job> jobs;
    int unreadable = 0;
    for (std::size_t f = 0; f < files.size(); ++f) {
        if (!readErrors[f].empty()) {
            std::fprintf(stderr, "quarvel: %s (skipped)\n", readErrors[f].c_str());
            ++unreadable;
        }
        for (std::size_t p = 0; p < inputs[f].size(); ++p) jobs.push_back(Job{f, p});
    }
    std::vector<std::vector<Page>> outputs(files.size());
    for (std::size_t f = 0; f < files.size(); ++f) outputs[f].resize(inputs[f].size());
    std::vector<std::vector<std::pair<std::string, Measure>>> measures(jobs.size());
    std::vector<std::string> errors(jobs.size());

    std::atomic<std::size_t> done{0};
    const bool bar = options.progress && isatty(fileno(stderr));
    std::mutex printing;
    ParallelFor(jobs.size(), options.jobs, [&](std::size_t j) {
        const Job &job = jobs[j];
        try {
            // Each page is worked on in its own copy (ImageAnd writes its page).
            const Page &in = inputs[job.file][job.page];
            Page copy(GlobalAlloc(GHND, GlobalSize(in.get())));
            void *dst = GlobalLock(copy.get());
            const void *src = GlobalLock(in.get());
            if (dst == nullptr || src == nullptr) throw OperationError("out of memory");
            std::memcpy(dst, src, GlobalSize(copy.get()));
            GlobalUnlock(in.get());
            GlobalUnlock(copy.get());
            outputs[job.file][job.page] = ApplySteps(steps, std::move(copy), &measures[j]);
        } catch (const std::exception &e) {
            errors[j] = e.what();
        }
        const std::size_t n = ++done;
        if (bar) {
            const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            const double rate = n / std::max(secs, 1e-6);
            const int width = 30, filled = static_cast<int>(width * n / jobs.size());
            std::lock_guard<std::mutex> lock(printing);
            std::fprintf(stderr, "\r[%s%s] %zu/%zu pages  %.1f pages/s  %s left ", std::string(filled, '=').c_str(),
                         std::string(width - filled, ' ').c_str(), n, jobs.size(), rate,
                         Clock((jobs.size() - n) / std::max(rate, 1e-6)).c_str());
        }
    });
    if (bar) std::fprintf(stderr, "\n");

    // Report in input order, then write each file whose pages all succeeded
    // (a failed page is reported and left out).
    int failedPages = 0, written = 0;
    for (std::size_t j = 0; j < jobs.size(); ++j) {
        std::string where = files[jobs[j].file];
        if (inputs[jobs[j].file].size() > 1) {
            where += '[';
            where += std::to_string(jobs[j].page + 1);
            where += ']';
        }
        if (!errors[j].empty()) {
            std::fprintf(stderr, "quarvel: %s: %s (skipped)\n", where.c_str(), errors[j].c_str());
            ++failedPages;
        }
        for (const auto &[name, m] : measures[j]) {
            if (options.json)
                std::printf("{\"file\": \"%s\", \"page\": %zu, \"operation\": \"%s\", \"value\": %s}\n", files[jobs[j].file].c_str(),
                            jobs[j].page + 1, name.c_str(), m.json.c_str());
            else
                std::printf("%s: %s %s\n", where.c_str(), name.c_str(), m.text.c_str());
        }
    }
    // Write the outputs in parallel; report write failures in input order.
    std::vector<std::string> writeErrors(files.size());
    std::vector<char> wrote(files.size(), 0);
    ParallelFor(files.size(), options.jobs, [&](std::size_t f) {
        std::vector<const Page *> pages;
        for (const Page &p : outputs[f])
            if (p) pages.push_back(&p);
        if (pages.empty()) return;
        const std::string out = OutputPath(options.outDir, files[f], options.format);
        try {
            if (pages.size() > 1 && !MultiPage(FormatOfPath(out))) {
                const std::filesystem::path p(out);
                for (std::size_t i = 0; i < pages.size(); ++i)
                    WriteImage((p.parent_path() / (p.stem().string() + "-" + std::to_string(i + 1) + p.extension().string())).string(),
                               {pages[i]});
            } else {
                WriteImage(out, pages);
            }
            wrote[f] = 1;
        } catch (const FormatError &e) {
            writeErrors[f] = e.what();
        }
    });
    for (std::size_t f = 0; f < files.size(); ++f) {
        if (!writeErrors[f].empty()) {
            std::fprintf(stderr, "quarvel: %s\n", writeErrors[f].c_str());
            ++failedPages;
        }
        written += wrote[f];
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::fprintf(stderr, "quarvel: %zu pages from %zu files in %.1f s (%.1f pages/s); %d failed, %d files written\n",
                 jobs.size(), files.size() - unreadable, secs, jobs.size() / std::max(secs, 1e-6), failedPages, written);
    if (jobs.empty() && unreadable > 0) return 3;
    return failedPages > 0 || unreadable > 0 ? 1 : 0;
}

}  // namespace qtool
