// CRegistration: the directory's record of every registered satellite, its services and where it is reached, in memory
// and in files that survive a restart. KelDirectory owns the one there is.
//
// Threads: every member may be called from any thread, except that LoadAllSatFiles belongs before the first request.
// Two levels of locks: the registry's own, over the map, the index and the id counter, and each satellite's, over its
// services; the registry's is taken first. Services change under both. No lock is held while a file is written or a
// line logged.
//
// Satellites and services are named without regard to ASCII case. Results are 0 for success or a code below.
//
// Files (docs/files.md has their text): one a satellite, named after satName in the record's letters, and one with the
// server's id and the last satId handed out. Whoever writes, replaces or deletes a satellite's file has the turn of the
// name (NameTurns) and looks the record up after it got the turn. So of two writers the later one writes what is true
// by then, and a file cannot come back after its satellite was removed. Files of earlier spellings are deleted by their
// own rule: NAME.xml is of no use when no record is spelled exactly NAME.
#pragma once

#include "foundation/Locks.h"
#include "foundation/SaidOnce.h"
#include "foundation/StdString.h"
#include "foundation/Turns.h"
#include "foundation/UpTime.h"
#include "registry/DataFiles.h"
#include "registry/GroupCommit.h"
#include "registry/RecentRemovals.h"
#include "registry/RunningChecks.h"
#include "registry/SatelliteChannel.h"
#include "registry/SatelliteInfo.h"
#include "registry/ServiceIndex.h"
#include "rpc/values/KelResult.h"

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <vector>

class ServiceAvailability;

class CRegistration {
public:
    using KelSatelliteInfo = ::KelSatelliteInfo;
    using KelService = ::KelService;
    using SatellitePtr = boost::shared_ptr<KelSatelliteInfo>;

    static constexpr int satIdMismatch = 2;
    static constexpr int unknownSatellite = 8;                     // of FindSatellite
    static constexpr int noRegistrationFile = 11;                  // of LoadAllSatFiles
    static constexpr int noSuchSatellite = KEL_REMOVED_MEANWHILE;  // of every other operation

    // Milliseconds of up-time, 32 bits, wrapping.
    using Clock = uint32_t (*)();

    // Draws a server id and makes the folders of the files. A failure is logged; the registry then works from memory.
    explicit CRegistration(Clock upTime = yar::UpTimeMs);
    virtual ~CRegistration();
    CRegistration(const CRegistration&) = delete;
    CRegistration& operator=(const CRegistration&) = delete;

    // Who is told what comes and goes from now on; nobody without it. Belongs before the first request.
    void SetServiceAvailability(const boost::shared_ptr<ServiceAvailability>& availability) {
        availability_ = availability;
    }

    // 16 characters that identify this registry; drawn at random, or those of the registration file once it was loaded.
    CStdStr GetServerId() const KEL_EXCLUDES(lock_);

    // How many satellites there are.
    size_t Count() const KEL_EXCLUDES(lock_);

    // The record, or null. It may leave the registry at any time.
    SatellitePtr GetSatelliteStruct(const CStdStr& name) const KEL_EXCLUDES(lock_);

    // Registers a satellite without services, in the place of any other of that name. A `*satId` other than 0 is kept
    // as it is; 0 receives the next id. Returns 0. Nothing is written to disk: SerializeSatellite does that.
    int AddSatellite(const CStdStr& name, const CStdStr& ip, unsigned short port, const CStdStr& hostname,
                     int kelProtocolVersion, int* satId) KEL_EXCLUDES(lock_);

    // Where the satellite is reached, for an asker at the address `destination` (null when it does not matter), and its
    // id. A satellite on the directory's own machine is reached from elsewhere at the address that
    // GetBestIPForDestination gives. unknownSatellite leaves the outputs untouched.
    int FindSatellite(const char* name, CStdStr& ip, int* satId, unsigned short* port, const char* destination) const
        KEL_EXCLUDES(lock_);
    int FindSatellite(const CStdStr& name, CStdStr& ip, int* satId, unsigned short* port, const char* destination) const
        KEL_EXCLUDES(lock_) {
        return FindSatellite(name.c_str(), ip, satId, port, destination);
    }

    // Stores the address of this machine's interface that routes towards the address `destination`; empty when no route
    // leads there. Returns 0.
    static int GetBestIPForDestination(const char* destination, CStdStr& ip);

    // Appends one entry for each satellite that publishes `service`, in the order of the names; with a `satName` only
    // for that satellite. `destination` is the asker's address, as in FindSatellite. Returns 0, also when there is
    // none.
    int GetServiceInfo(const CStdStr& service, const CStdStr& satName, std::vector<KelServiceInfo>& out,
                       const char* destination) const KEL_EXCLUDES(lock_);

    // Appends the last of those entries only, without building the others.
    int GetLastServiceInfo(const CStdStr& service, std::vector<KelServiceInfo>& out, const char* destination) const
        KEL_EXCLUDES(lock_);

    // Appends the names of the satellites that publish `service`, in their order, but for those that listeners have
    // heard to be gone. Returns 0.
    int GetProviders(const CStdStr& service, std::list<CStdStr>& satellites) const KEL_EXCLUDES(lock_);

    // Whether the registry may take in the satellite with these services, or what is new in them where it has it
    // already: all records together are held to maxBytes, so that nobody who registers can use up the memory.
    bool HasRoomFor(const CStdStr& satName, const std::vector<KelService>& services) const KEL_EXCLUDES(lock_);
    static constexpr size_t maxBytes = size_t{128} << 20;

    // Publishes a service of a satellite; one of that name is replaced. Listeners are told, also when it was there.
    // Returns 0 or noSuchSatellite.
    int AddService(const CStdStr& satName, const CStdStr& service, const CStdStr& description) KEL_EXCLUDES(lock_);

    // Withdraws a service, if the satellite has it (and then listeners are told), and stores the number of services
    // left. Returns 0 or noSuchSatellite.
    int RemoveService(const CStdStr& satName, const CStdStr& service, int* remaining) KEL_EXCLUDES(lock_);

    // Removes the satellite, its file and what it listens for when it has this id; a newer one of the name stays.
    // Listeners of its services are not told. Returns 0 always.
    int RemoveSatellite(const CStdStr& name, int satId) KEL_EXCLUDES(lock_);
    // Tells listeners that its services are gone, then removes it.
    int RemoveAndTell(const CStdStr& name, int satId) KEL_EXCLUDES(lock_);

    // The satellite is not to be pinged for so many seconds from now. Returns 0 or noSuchSatellite.
    int SetBeRightBackTimer(const CStdStr& name, int seconds) KEL_EXCLUDES(lock_);

    // Writes the registration file, then the file of the satellite if there is one. Returns 0; what cannot be written
    // is logged, and written when SaveIfFailed can. Otherwise the registration file names an id at least as high as any
    // handed out before the call when it returns.
    int SerializeSatellite(const CStdStr& name) KEL_EXCLUDES(lock_);
    // Again for everything that the latest attempt failed for: files to be written and files to be deleted. One thread
    // at a time.
    void SaveIfFailed() KEL_EXCLUDES(lock_, unstoredLock_);

    // Takes over what the files say and puts those that cannot be read back into the folder "Damaged". Returns 0;
    // noRegistrationFile when that file is missing, empty or without a last id: then no satellite is loaded, and ids go
    // on from the highest in their files; -1 when the folders are missing.
    int LoadAllSatFiles() KEL_EXCLUDES(lock_);

    // Deletes the satellite's file, the record stays. Returns 0 (also when there was no file), satIdMismatch or
    // noSuchSatellite.
    int DeleteSatelliteFile(const CStdStr& name, int satId) KEL_EXCLUDES(lock_);

    // --- Liveness (Liveness.cc) ---

    // Starts a check of every satellite that none is under way of, each on a thread of its own, and returns. `sink` has
    // to stay until WaitCheckSatellites has returned. Throws std::runtime_error when the system has no thread left: the
    // satellites after the one it was needed for are not checked this time.
    void CheckSatellites(SatelliteChannel* sink) KEL_EXCLUDES(lock_);
    // Whether checks may begin; without, a call of CheckSatellites that is under way begins no more. They may at first.
    void AllowChecks(bool mayBegin) { mayBeginChecks_ = mayBegin; }
    // One check, the body of its thread: pings the satellite, unless it asked not to be, and removes it when it does
    // not answer. `data` is a CheckSatelliteData, which it deletes. Returns 0.
    unsigned int CheckSatellite(void* data) KEL_EXCLUDES(lock_);
    // Returns when all checks that were started have ended.
    void WaitCheckSatellites();
    // Tells the listeners of each service of the satellite, if it has this id, that it is gone. Returns 0.
    int forceNotifyServicesUnregistered(const CStdStr& name, int satId) KEL_EXCLUDES(lock_);

private:
    struct CheckSatelliteData;

    void AppendServices(const CStdStr& service, const CStdStr& satName, std::vector<KelServiceInfo>& out) const
        KEL_EXCLUDES(lock_);
    void AppendLastService(const CStdStr& service, std::vector<KelServiceInfo>& out) const KEL_EXCLUDES(lock_);
    // Gives the entries from `first` on the addresses that the asker at `destination` can reach.
    static int GiveBestIPs(std::vector<KelServiceInfo>& infos, size_t first, const char* destination);
    static void Describe(const KelSatelliteInfo& satellite, const KelService& service, KelServiceInfo& info);
    // Services change only under both locks, so the registry's is enough to read them: with many satellites the other
    // one is a line of distant memory to write to in every look-up.
    void AppendServiceOf(const KelSatelliteInfo& satellite, const CStdStr& service,
                         std::vector<KelServiceInfo>& out) const
        KEL_REQUIRES_SHARED(lock_) KEL_NO_THREAD_SAFETY_ANALYSIS;

    // Puts the record into the place of its name, with the next id if it has none. Returns the record that it took the
    // place of, or null; or, when `rule` is against it, `fresh` itself.
    enum class Insertion { always, ifNewer, ifNotOlder };  // by the satId of the one that is there
    SatellitePtr Insert(const SatellitePtr& fresh, Insertion rule) KEL_REQUIRES(lock_);
    void Replace(KelSatelliteInfo& old, KelSatelliteInfo& fresh) KEL_REQUIRES(lock_);
    SatellitePtr EraseSatellite(const CStdStr& name, int satId) KEL_EXCLUDES(lock_);  // returns the record, or null
    bool Publishes(const CStdStr& name, const CStdStr& service) const KEL_EXCLUDES(lock_);

    // Liveness.cc
    void StartCheck(const SatellitePtr& satellite, SatelliteChannel* sink);
    void ReleaseUnstarted() KEL_EXCLUDES(unstartedLock_);
    bool IsRightBack(const KelSatelliteInfo& satellite) const;
    bool EndRightBack(KelSatelliteInfo& satellite) const;
    bool Answers(const KelSatelliteInfo& satellite, SatelliteChannel& sink);
    void LogRemoval(const KelSatelliteInfo& satellite, const CStdStr& why);
    static bool MarkAsGone(KelSatelliteInfo& satellite, const CStdStr& service);
    static std::vector<CStdStr> ServicesOf(const KelSatelliteInfo& satellite);

    // SatelliteFiles.cc
    using Folder = kel::registry::Folder;
    using FileChange = kel::registry::FileChange;
    using Complaint = kel::registry::Complaint;
    static constexpr const char* registrationFile = "Registration.xml";
    void CreateFolders();
    void OpenFolders();
    bool HaveFoldersGone() const;
    void LookAfterFolders() KEL_EXCLUDES(lock_, unstoredLock_);
    void SayUnusable(const std::exception& failure);
    FileChange RegistrationChange() KEL_EXCLUDES(lock_);
    bool Store(const CStdStr& name) KEL_EXCLUDES(lock_, unstoredLock_);
    bool WriteFiles(const FileChange* change) KEL_EXCLUDES(lock_);
    void NoteUnstored(const CStdStr& name) KEL_EXCLUDES(unstoredLock_);
    void NoteUndeleted(const CStdStr& name) KEL_EXCLUDES(unstoredLock_);
    int DeleteFileInTurn(const CStdStr& name, int satId) KEL_EXCLUDES(lock_, unstoredLock_);
    void RemoveFile(const CStdStr& name) KEL_EXCLUDES(unstoredLock_);
    void DeleteUnlessOwned(const CStdStr& name) KEL_EXCLUDES(lock_, unstoredLock_);
    void DeleteFormerFiles(const CStdStr& name, std::optional<int> satId, bool isStoredOrGone)
        KEL_EXCLUDES(lock_, unstoredLock_);

    // SatelliteLoading.cc
    bool LoadRegistrationFile(bool& isDamaged) KEL_EXCLUDES(lock_);
    void TakeOverUnread() KEL_EXCLUDES(lock_);
    int32_t BoundCounter(const Folder& folder, const std::vector<CStdStr>& fileNames) KEL_EXCLUDES(lock_);
    void LoadSatellite(const Folder& folder, const CStdStr& fileName, const CStdStr& text) KEL_EXCLUDES(lock_);
    void DeleteLoser(const Folder& folder, const CStdStr& fileName) KEL_EXCLUDES(unstoredLock_);

    const Clock upTime_;

    mutable PReadWriteLock lock_;
    CStdStr serverId_ KEL_GUARDED_BY(lock_);
    int32_t lastSatId_ KEL_GUARDED_BY(lock_) = 0;
    std::map<CStdStr, SatellitePtr, CaseInsensitiveLess> satellites_ KEL_GUARDED_BY(lock_);
    ServiceIndex providers_ KEL_GUARDED_BY(lock_);
    size_t bytes_ KEL_GUARDED_BY(lock_) = 0;  // of all records, about

    boost::shared_ptr<ServiceAvailability> availability_;

    std::atomic<bool> mayBeginChecks_{true};
    bool hasChecked_ = false;  // the check thread's
    const boost::shared_ptr<RunningChecks> runningChecks_;
    PMutex unstartedLock_;
    SatellitePtr unstarted_ KEL_GUARDED_BY(unstartedLock_);  // its check was begun without a thread
    RecentRemovals removals_;                                // by checks

    // Of the satellites, locked against other directories, and of the registration file; empty while they cannot be
    // used.
    std::vector<Folder> folders_;        // SaveIfFailed's
    std::atomic<bool> isUnread_{false};  // the files could not be looked at when they were to be loaded
    kel::registry::GroupCommit commit_{kel::registry::SyncsFiles(), [this] { return RegistrationChange(); }};
    NameTurns turns_;
    SaidOnce isFolderMissed_;
    Complaint registrationFails_;
    Complaint satelliteFails_;
    Complaint deletionFails_;
    PMutex unstoredLock_;
    std::set<CStdStr, CaseInsensitiveLess> unstored_
        KEL_GUARDED_BY(unstoredLock_);                           // their files are not what they should
    std::set<CStdStr> undeleted_ KEL_GUARDED_BY(unstoredLock_);  // files that should be gone, less ".xml"
};
