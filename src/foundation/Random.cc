#include "foundation/Random.h"

#include <cstring>
#include <ctime>

namespace {

const char* alphabetOf(CRandom::StringType type) {
    switch (type) {
        case CRandom::alphanumeric:
            return "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
        case CRandom::letters:
            return "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
        case CRandom::digits:
            return "0123456789";
    }
    return "";
}

}  // namespace

CRandom CRandom::s_random(static_cast<unsigned long>(std::time(nullptr)));

void CRandom::init_genrand(unsigned long seed) { engine_.seed(static_cast<std::uint32_t>(seed)); }

std::uint32_t CRandom::genrand_int32() { return static_cast<std::uint32_t>(engine_()); }

std::int32_t CRandom::genrand_int31() { return static_cast<std::int32_t>(genrand_int32() >> 1); }

double CRandom::genrand_real1() { return genrand_int32() * (1.0 / 4294967295.0); }

double CRandom::genrand_real2() { return genrand_int32() * (1.0 / 4294967296.0); }

double CRandom::genrand_real3() { return (genrand_int32() + 0.5) * (1.0 / 4294967296.0); }

double CRandom::genrand_res53() {
    const std::uint32_t high = genrand_int32() >> 5;
    const std::uint32_t low = genrand_int32() >> 6;
    return (high * 67108864.0 + low) * (1.0 / 9007199254740992.0);
}

CStdStr CRandom::genrand_string(int length, StringType type) {
    CStdStr text;
    const char* alphabet = alphabetOf(type);
    const std::size_t characters = std::strlen(alphabet);
    if (length <= 0 || characters == 0) return text;
    text.reserve(static_cast<std::size_t>(length) + 1);
    for (int i = 0; i < length; ++i) text.push_back(alphabet[genrand_int32() % characters]);
    return text;
}
