// Runs the fuzz targets. Without libFuzzer this replays the corpora and the inputs that once failed.
#include "fuzz.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace
{

int lowest_free_descriptor()
{
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

/** Runs a target on an input, with classic (0) or with current sources (1). */
void run(const target_t &target, const std::string &input, int state, int debug_level)
{
    static FILE *const debug_output = stdout = fopen("/dev/null", "we");
    require(debug_output != nullptr);
    const int before = lowest_free_descriptor();
    global_debug_state = debug_level;
    global_source_state = state;
    new_conn();
    simhost_unload();
    // Of the processor's time: the machine may have more to do. libFuzzer sees the other one.
    const clock_t start = clock();
    FILE *const messages = std::exchange(stderr, debug_output); // what the host cannot make
    target.run(input);
    stderr = messages;
    require(clock() - start < 2 * CLOCKS_PER_SEC);
    conn_free(&the_connection);
    require(lowest_free_descriptor() == before);
}

const target_t *find_target(const std::string &name)
{
    const auto found = std::find_if(targets.begin(), targets.end(),
                                    [&](const target_t &row) { return row.name == name; });
    return found == targets.end() ? nullptr : &*found;
}

} // namespace

void require_parsed()
{
    if (const std::string error = xml_error(response()); !error.empty()) {
        dprintf(STDERR_FILENO, "%s:\n%s\n", error.c_str(), response().c_str());
        abort();
    }
}

#ifdef FUZZER

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const target_t &target = *find_target(getenv("FUZZ_TARGET"));
    const std::string input{reinterpret_cast<const char *>(data), size};
    const size_t choice = std::hash<std::string>{}(input);
    run(target, input, choice % 2, choice / 2 % 32 ? 0 : 4);
    return 0;
}

#else

namespace
{

std::string content(const fs::path &path)
{
    std::ifstream file{path};
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace

int main()
{
    int number = 0;
    for (const char *folder : {INPUTS, CORPORA})
        for (fs::recursive_directory_iterator file{folder}; file != fs::end(file); ++file) {
            if (file.depth() == 0)
                continue;
            const target_t *target = find_target(file->path().parent_path().filename());
            require(target != nullptr);
            number++;
            for (const int state : {0, 1})
                run(*target, content(file->path()), state, number % 8 ? 0 : 4);
        }
    fprintf(stderr, "fuzz targets: %d inputs replayed\n", number);
    return 0;
}

#endif
