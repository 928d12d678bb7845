#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include <fcntl.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" void __sanitizer_set_death_callback(void (*callback)());

namespace {

using Bytes = std::string;

constexpr size_t MaximumSize = 4096;
constexpr unsigned SecondsARun = 20;

Bytes currentInput;
size_t inputsMade = 0;
unsigned randomSeed = 0;
std::string findFile;

// Of a find; called in the middle of anything.
void keepInput()
{
    const int fd = open(findFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const ssize_t written = fd < 0 ? -1 : write(fd, currentInput.data(), currentInput.size());
    dprintf(STDERR_FILENO, "input %zu of the random seed %u (0: a seed itself); %s %s\n", inputsMade, randomSeed,
        written < 0 ? "it cannot be kept in" : "it is kept in", findFile.c_str());
}

void onFatalSignal(int number)
{
    if (number == SIGALRM)
        dprintf(STDERR_FILENO, "an input takes more than %u s\n", SecondsARun);
    keepInput();
    signal(number, SIG_DFL);
    raise(number);
}

void run(const Bytes& input)
{
    currentInput = input;
    alarm(SecondsARun);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(currentInput.data()), currentInput.size());
}

std::vector<Bytes> readSeeds(const std::vector<std::string>& places)
{
    std::vector<std::filesystem::path> files;
    for (const std::string& place : places) {
        if (std::filesystem::is_directory(place))
            std::copy(std::filesystem::directory_iterator(place), {}, std::back_inserter(files));
        else if (std::filesystem::exists(place))
            files.emplace_back(place);
    }
    std::sort(files.begin(), files.end()); // The same seed means the same run.
    std::vector<Bytes> seeds;
    for (const auto& file : files) {
        std::ifstream stream(file, std::ios::binary);
        seeds.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    }
    return seeds;
}

/// Makes inputs of the seeds: bytes are changed, added, left out, said again, or taken from another seed.
class Mutator {
public:
    Mutator(const std::vector<Bytes>& seeds, unsigned seed) : m_seeds(seeds), m_random(seed) { }

    Bytes next()
    {
        Bytes input = anySeed();
        for (size_t changes = 1 + below(4); changes > 0; --changes)
            change(&input);
        input.resize(std::min(input.size(), MaximumSize));
        return input;
    }

private:
    size_t below(size_t bound) { return bound ? m_random() % bound : 0; }
    const Bytes& anySeed() { return m_seeds[below(m_seeds.size())]; }

    Bytes piece(const Bytes& of)
    {
        const size_t at = below(of.size());
        return of.substr(at, 1 + below(below(of.size() - at)));
    }

    Bytes telling()
    {
        static const Bytes texts[] = { "\r\n", "\n", "\r", Bytes(1, '\0'), " ", "\t", ":", ",", ";", "=", "%", "%00",
            "%2e%2e", "/", "../", "\"", "\\", "&", "?", "#", "@", "[", "]", "{", "}", "-", "--", "<!--#", "-->", "0",
            "-1", "2147483648", "9223372036854775808", "18446744073709551616", "1e999", "\xC3\xBC", "\xFF", "\x7F",
            "\xF0\x9F\x98\x80", "\r\n\r\n", ": ", "null" };
        return texts[below(std::size(texts))];
    }

    void change(Bytes* input)
    {
        const size_t at = below(input->size() + 1);
        switch (below(6)) {
        case 0:
            if (at < input->size())
                (*input)[at] = static_cast<char>(m_random());
            break;
        case 1:
            if (at < input->size())
                (*input)[at] = static_cast<char>((*input)[at] ^ (1 << below(8)));
            break;
        case 2:
            input->erase(at, 1 + below(below(input->size())));
            break;
        case 3:
            input->insert(at, piece(*input));
            break;
        case 4:
            input->insert(at, piece(anySeed()));
            break;
        default:
            input->insert(at, telling());
        }
    }

    const std::vector<Bytes>& m_seeds;
    std::mt19937 m_random;
};

} // namespace

/// TARGET SECONDS SEED PLACE...: in the place of libFuzzer, where the compiler has none. Runs the target on every file
/// named or in a folder named, then for so long on what it makes of them, which the seed determines. What the target
/// does not survive stays in a file named after it.
int main(int argc, char** argv)
{
    if (argc < 4) {
        fprintf(stderr, "usage: %s SECONDS SEED PLACE...\n", argv[0]);
        return 2;
    }
    findFile = std::string(argv[0]) + "-find";
    __sanitizer_set_death_callback(keepInput);
    for (const int number : { SIGABRT, SIGALRM, SIGTRAP })
        signal(number, onFatalSignal);

    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    randomSeed = static_cast<unsigned>(strtoul(argv[2], nullptr, 10));
    const std::vector<Bytes> seeds = readSeeds({ argv + 3, argv + argc });
    if (seeds.empty()) {
        fprintf(stderr, "%s: no seeds\n", argv[0]);
        return 2;
    }
    for (const Bytes& input : seeds)
        run(input);

    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(strtoul(argv[1], nullptr, 10));
    Mutator mutator(seeds, randomSeed);
    while (std::chrono::steady_clock::now() < end) {
        ++inputsMade;
        run(mutator.next());
    }
    alarm(0);
    __sanitizer_set_death_callback(nullptr); // What is found from here on is a leak of them all.
    printf("%zu seeds, %zu inputs made of them, random seed %u\n", seeds.size(), inputsMade, randomSeed);
    return 0;
}
