// The satellites that the measurements register, and the baselines that only write or only read their files.
#pragma once

#include <cstddef>
#include <string>

namespace kel::bench {

// Every directory of a measurement starts with this last id, so that all ids it hands out take the same number of bytes
// in an answer and of digits in a file.
constexpr int lastIdAtStart = 100'000;

// The id of the first satellite that registers: the directory itself takes the one before.
constexpr int firstId = lastIdAtStart + 2;

// A satellite that publishes one service. Names of all numbers below ten million have the same length.
struct Satellite {
    std::string name;
    std::string service;
    std::string description;  // 20 characters
    unsigned short port;
};
Satellite SatelliteNumber(unsigned number, unsigned short port);

// The texts of the two files as the directory writes them for such a satellite.
std::string RegistrationText(int lastId);
std::string SatelliteText(const Satellite& satellite, int id);

// Where they lie below a directory's root.
std::string SatelliteFolder(const std::string& root);
std::string RegistrationFile(const std::string& root);
std::string SatelliteFile(const std::string& root, const Satellite& satellite);

// Makes the folders below `root`, with a registration file that names lastIdAtStart.
void MakeFolders(const std::string& root);

// Whether files are brought to the disk when they are written.
enum class Syncing { off, on };

// For each of the `count` satellites from number `first` on, replaces the registration file and then the satellite's
// own, each written beside its target, synced if wanted, renamed over it, and its folder synced likewise. All have the
// same port. The texts are ready before the clock starts. Returns the satellites a second.
double ReplaceFiles(const std::string& root, unsigned short port, unsigned first, unsigned count, Syncing syncing);

// Reads every satellite file below `root`, one after the other; returns how many there were.
size_t ReadFiles(const std::string& root);

}  // namespace kel::bench
