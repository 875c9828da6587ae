/*
 * tarn_device.h - Tarn_Device: browse and move the content of iPod, iPhone
 * and iPad devices attached over USB.
 *
 * The library is passive: nothing of it runs, and no connection stays open
 * between calls unless the caller asks for one (TarnHoldConnection()).
 * Otherwise every call that needs the device opens its own connection and
 * closes it before it returns; the library calls it makes on its way borrow
 * that connection, so one call costs one lockdown session (one secure
 * handshake with the device).
 *
 * Conventions that hold for every function below unless its comment says
 * otherwise:
 *  - Status functions return 0 for success and 1 for failure; predicates
 *    return 1 or 0; queries return a new value or NULL.
 *  - Text arguments stay owned by the caller.
 *  - Property-list results (plist_t) belong to the caller, who releases them
 *    with plist_free().
 *  - String vectors (char **) are NULL-terminated and released with
 *    g_strfreev(); a file-information vector, which may hold NULL slots,
 *    with FreeFileInfo().
 *  - Most functions print a few progress lines on standard output; the lines
 *    are part of the interface and are listed with each function.
 *  - A device that goes away mid-call makes the call fail with a reason,
 *    never raise SIGPIPE: while a call (or a release function) runs, SIGPIPE
 *    is blocked on the calling thread and a signal its writes raised is
 *    taken before the thread's mask is restored. The application's own
 *    handling of SIGPIPE is left as it is.
 *
 * Threads: the library keeps no global state. Per thread it keeps the
 * reason for the last failure (TarnLastError()) and, only while
 * SetDeviceUsage runs, the music database parse its lists share. No thread
 * of its own outlives a call (a parse of the music database verifies the
 * file's checksum on a second thread, which ends before the parse returns).
 *  - May be shared: nothing of the library's own. Different handles, also
 *    for the same device, may be used from different threads at the same
 *    time; each call opens its own connection, or uses the one held on its
 *    handle (TarnHoldConnection()). Results (property lists,
 *    string vectors, PodDir and search records) belong to the caller and
 *    may be handed to another thread, but not used by two at once.
 *  - May not be shared: one PodDevice handle between threads that call
 *    into it at the same time (InitDevice writes its fields, and the
 *    progress callback reads userData), and a file-conduit client passed
 *    to the functions that take one.
 *  - Progress callbacks run on the thread of the transfer that calls them.
 *  - The device's sync lock is not a lock between threads: two copies to
 *    one device at once do not wait for each other; the second goes on
 *    without the lock.
 *  - Console lines are written to stdout with puts/printf; lines of calls
 *    on different threads interleave, each line whole.
 */
#ifndef TARN_DEVICE_H
#define TARN_DEVICE_H

#include <stddef.h>
#include <stdint.h>

#include <gpod/itdb.h>
#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <plist/plist.h>

#include "tarn_tool.h"

#if defined(TARN_BUILDING_LIBRARY)
#define TARN_API __attribute__((visibility("default")))
#else
#define TARN_API
#endif

/* ------------------------------------------------------------------------ */
/* Version                                                                   */
/* ------------------------------------------------------------------------ */

/** Major version of the interface this header declares; it is the soname's number. */
#define TARN_DEVICE_VERSION_MAJOR 1
/** Minor version: grows when functions are added. */
#define TARN_DEVICE_VERSION_MINOR 3
/** Patch version: grows with fixes that change no declaration. */
#define TARN_DEVICE_VERSION_PATCH 0
/** The three numbers as text, "MAJOR.MINOR.PATCH". */
#define TARN_DEVICE_VERSION "1.3.0"

#ifdef __cplusplus
extern "C" {
#endif
/**
 * The version of the library that is loaded, as "MAJOR.MINOR.PATCH". It may
 * be newer than TARN_DEVICE_VERSION, the version the application was built
 * against; the major numbers of the two always agree.
 *
 * @return A static string; never NULL, never released.
 */
TARN_API const char *TarnVersion(void);
#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The deepest level below its starting directory that any recursive walk of
 * the device (snapshot, search, recursive delete, directory copy, picture
 * walk) descends to. Entries deeper than this are skipped, so that a device
 * presenting a directory cycle (a symbolic link to an ancestor) or an
 * absurdly deep tree cannot exhaust the stack or make a walk endless.
 */
#define TARN_MAX_WALK_DEPTH 64

/**
 * The most entries (files and directories) that one recursive walk visits.
 * Beyond it the walk skips what is left, so that a device presenting a tree
 * that fans out without end (two links back up in one directory already
 * make 2^64 directories above the depth limit) ends the walk after a bounded
 * number of requests. Several times the entries of the fullest device.
 */
#define TARN_MAX_WALK_ENTRIES 1000000

/* ------------------------------------------------------------------------ */
/* Records                                                                   */
/* ------------------------------------------------------------------------ */

typedef struct PodDevice PodDevice;
typedef struct PodDir PodDir;
typedef struct PodFile PodFile;
typedef struct PodSearchItem PodSearchItem;

/**
 * Progress callback of single-file transfers.
 *
 * @param total Size of the file in bytes.
 * @param done Bytes copied so far (for the final call of an upload: the
 *        bytes of the last block alone).
 * @param finished 0 while copying, 1 once at the end.
 * @param user_data The userData field of the PodDevice handle.
 * @return 0 to go on, any other value to cancel the transfer.
 */
typedef int (*PodProgressCallback)(uint64_t total, uint64_t done, int finished, void *user_data);

/** Signature of libplist's plist_from_xml() and plist_from_bin(). */
typedef void (*PodPlistParser)(const char *data, uint32_t length, plist_t *root);

/** Signature of a list function: (handle, reserved, reserved) -> result. */
typedef plist_t (*PodListFunction)(PodDevice *device, uint32_t reserved1, uint32_t reserved2);

/**
 * The service record: the entry points needed before a device is chosen.
 * Allocated by CreatePodDeviceService(), released by FreePodDeviceService().
 */
typedef struct PodDeviceService {
    plist_t (*GetDevicesId)(void);
    PodDevice *(*CreatePodDevice)(const char *device_id);
    void (*FreePodDevice)(PodDevice *device);
} PodDeviceService;

/**
 * The device handle: 32 pointer-size fields in a fixed order. The
 * application may call the operations through the slots or by their exported
 * names; both reach the same functions.
 */
struct PodDevice {
    char *deviceId;   /**< device identifier, a copy owned by the record */
    void *userData;   /**< the application's; passed to progress callbacks */
    plist_t dbInfo;   /**< database information, set by InitDevice() */
    char *hostDir;    /**< host working directory, set by InitDevice() */
    int (*InitDevice)(PodDevice *device, const char *host_dir);
    plist_t (*GetDeviceInfo)(PodDevice *device);
    void (*CopyFileFromDeviceToNative)(PodDevice *device, const char *device_path,
                                       const char *host_path, PodProgressCallback progress);
    int (*CopyFileFromNativeToDevice)(PodDevice *device, const char *host_path,
                                      const char *device_path, PodProgressCallback progress);
    void (*CopyDeviceDirectory)(PodDevice *device, const char *device_dir, const char *host_dir);
    PodListFunction GetMusicList;
    PodListFunction GetMovieList;
    PodListFunction GetMusicList2;  /**< GetMusicList again, kept for the table's width */
    PodListFunction GetPlayList;
    PodListFunction GetMovieList2;  /**< GetMovieList again, kept for the table's width */
    PodListFunction GetPodcastList;
    PodListFunction GetTvshowList;
    PodListFunction GetAudioBookList;
    PodListFunction GetRecordingList;
    PodListFunction GetRingtonesList;
    plist_t (*GetUserPictureListFromDevice)(PodDevice *device);
    PodListFunction GetBookList;
    PodListFunction GetCameraPVList;
    int (*MakeDir)(PodDevice *device, const char *path);
    int (*IsDirExist)(PodDevice *device, const char *path);
    int (*IsFileExist)(PodDevice *device, const char *path);
    int (*RenamePath)(PodDevice *device, const char *old_path, const char *new_path);
    int (*DeleteFile)(PodDevice *device, const char *path);
    int (*DeleteDir)(PodDevice *device, const char *path);
    PodDir *(*GetPodDir)(PodDevice *device, const char *path, uint32_t max_level);
    void (*FreePodDir)(PodDir *dir, int free_self, PodDir *root);
    char **(*GetDirOrFileInfo)(PodDevice *device, const char *path);
    PodSearchItem *(*SearchFile)(PodDevice *device, const char *dir, const char *keyword);
};

/** One directory of a snapshot (GetPodDir()) or a directory search result. */
struct PodDir {
    int32_t dir_count;   /**< root only: directories recorded below the root */
    int32_t file_count;  /**< root only: files recorded below the root */
    int32_t level;       /**< depth below the root, 0 for the root */
    int32_t max_level;   /**< root only: depth limit, 0 for none */
    PodDir *parent;      /**< containing directory, NULL for the root */
    PodDir *prev_dir;    /**< previous sibling directory */
    PodDir *next_dir;    /**< next sibling directory */
    PodDir *first_dir;   /**< first subdirectory */
    PodFile *first_file; /**< first file */
    char *name;          /**< entry name as the device lists it */
    char *parent_path;   /**< device path of the parent directory */
    char *path;          /**< device path of this directory */
    void *reserved;      /**< always NULL */
    char *create_date;   /**< creation time, whole seconds, decimal text */
    char *modify_date;   /**< modification time, whole seconds, decimal text */
};

/** One file of a snapshot or a file search result. */
struct PodFile {
    PodDir *parent;      /**< containing directory (NULL in search results) */
    PodFile *prev_file;  /**< previous file in the same directory */
    PodFile *next_file;  /**< next file in the same directory */
    char *name;          /**< entry name */
    char *parent_path;   /**< device path of the containing directory */
    char *path;          /**< device path of the file */
    char *size;          /**< size in bytes, decimal text */
    char *create_date;   /**< creation time, whole seconds, decimal text */
    char *modify_date;   /**< modification time, whole seconds, decimal text */
};

/** One search result; results form a singly linked list. */
struct PodSearchItem {
    void *record;         /**< the PodFile (kind 0) or PodDir (kind 1) found */
    int32_t kind;         /**< 0 for a file, 1 for a directory */
    PodSearchItem *next;  /**< next result, NULL for the last */
};

/** State of a running search (InternalSearchFile()). */
typedef struct PodSearchState {
    const char *keyword;   /**< matched as given against lower-cased names */
    PodSearchItem *first;  /**< first result so far */
    PodSearchItem *last;   /**< last result so far */
    int32_t depth;         /**< directories entered below the start */
} PodSearchState;

/** Context the recording reader hands to RecordingDbCallback(). */
typedef struct RecordingRowContext {
    uint32_t count;       /**< rows turned into items so far */
    plist_t items;        /**< item array, not owned */
    uint64_t total;       /**< running byte total */
    afc_client_t client;  /**< file-conduit client, not owned */
} RecordingRowContext;

/** Context the camera-roll reader hands to CameraPictureCallback(). */
typedef struct CameraRowContext {
    plist_t items;        /**< item array, not owned */
    uint64_t total;       /**< running byte total */
    afc_client_t client;  /**< file-conduit client, not owned */
} CameraRowContext;

/* ------------------------------------------------------------------------ */
/* Service record, device list, handle and per-call connection               */
/* ------------------------------------------------------------------------ */

/**
 * Creates the service record. Prints "CreatePodDeviceService".
 * @return A new record, released with FreePodDeviceService().
 */
TARN_API PodDeviceService *CreatePodDeviceService(void);

/** Releases a service record; NULL is accepted. */
TARN_API void FreePodDeviceService(PodDeviceService *service);

/**
 * Lists the identifiers of the attached devices, in the order in which
 * libimobiledevice lists them.
 *
 * Prints "GetDevicesId"; on success also "GetDevicesId END" and the array
 * (PrintPlist()).
 * @return A new array of strings, or NULL when no device is attached
 *         (TARN_E_NO_DEVICE) or the device list cannot be read
 *         (TARN_E_NO_USBMUXD).
 */
TARN_API plist_t GetDevicesId(void);

/**
 * Creates a device handle with every operation slot filled and userData,
 * dbInfo and hostDir cleared. Prints "CreatePodDevice".
 * @param device_id Device identifier (copied).
 * @return A new handle, released with FreePodDevice().
 */
TARN_API PodDevice *CreatePodDevice(const char *device_id);

/** Releases a handle, its texts and its dbInfo; NULL is accepted. Prints nothing. */
TARN_API void FreePodDevice(PodDevice *device);

/**
 * Opens a per-call connection: device connection, lockdown handshake (label
 * "ideviceclient") and the file-conduit service.
 *
 * @param device Out: receives the device connection as soon as it is made,
 *        also when a later step fails. Set it to NULL before the call.
 * @param device_id Device identifier.
 * @return The file-conduit client, or NULL on failure (TarnLastError()
 *         says why: no usbmuxd, no device, a pairing or lock state of the
 *         device, the file service refused). Release both with
 *         CloseIdeviceAndAfC(), which leaves the reason in place.
 */
TARN_API afc_client_t OpenIdeviceAndAfC(idevice_t *device, const char *device_id);

/** Releases a client and a device connection; either may be NULL. */
TARN_API void CloseIdeviceAndAfC(afc_client_t client, idevice_t device);

/**
 * Opens one connection to the handle's device (device connection, lockdown
 * session with its secure handshake, file-conduit service) and keeps it on
 * the handle: every call made with this handle until TarnReleaseConnection()
 * or FreePodDevice() uses it instead of opening its own, so a program that
 * makes many calls pays for one handshake. Without it the library keeps no
 * connection between calls. A second call while one is held does nothing.
 *
 * Threads: the held connection belongs to the handle and follows the
 * handle's rule: one thread at a time may call with the handle (including
 * this function and TarnReleaseConnection()); it may move between threads
 * between calls. Prints nothing.
 *
 * A connection that breaks while held (the device was unplugged) stays held
 * and every call over it records TARN_E_CONNECTION_LOST: release it, and
 * hold a new one when the device is back.
 * @return 0 when the connection is held, 1 when the device, its lockdown
 *         service or its file service cannot be reached (TarnLastError()
 *         says why; nothing is held then).
 */
TARN_API int TarnHoldConnection(PodDevice *device);

/**
 * Closes the connection held on the handle, if any; later calls open their
 * own again. NULL is accepted. Prints nothing and leaves the reason record
 * alone.
 */
TARN_API void TarnReleaseConnection(PodDevice *device);

/**
 * The file-conduit client of the connection held on the handle, for the
 * functions that take a client (the workers, GetFileInfo(), TarnSyncLock(),
 * TarnMakeDirectory(), ...).
 * @return The held client, owned by the handle and valid until the
 *         connection is released; NULL when none is held. Prints nothing
 *         and leaves the reason record alone.
 */
TARN_API afc_client_t TarnHeldClient(PodDevice *device);

/**
 * The name the person gave the device ("Anna's iPhone"), asked of lockdown.
 * Over the held connection when there is one; otherwise over a lockdown
 * connection of its own without a session, which costs no secure handshake
 * and is answered also by a locked or not yet trusted device. Needs no
 * InitDevice(). Prints nothing.
 * @return A new text released with free(), or NULL (TarnLastError() says
 *         why: no usbmuxd, no device, a lockdown refusal).
 */
TARN_API char *TarnGetDeviceName(PodDevice *device);

/**
 * Asks the device to trust this computer again, through libimobiledevice's
 * pairing: for a device that forgot this computer (reset or restored:
 * TARN_E_PAIRING_INVALID) or has never paired with it (TARN_E_NOT_PAIRED).
 * A new pair record is made and sent; the device shows "Trust This
 * Computer?" and answers only once the person has tapped Trust, so a
 * caller asks again while the answer is TARN_E_PAIRING_PENDING (every few
 * seconds; each call is one plain lockdown request, no secure session).
 * On success the record is saved where libimobiledevice keeps it (usbmuxd)
 * and the next connection uses it. A connection held on the handle is
 * released first, since it was made with the old record. Needs no
 * InitDevice(). Prints nothing.
 * @return 0 when the device accepted the pairing; 1 otherwise, with
 *         TarnLastError() saying why: TARN_E_PAIRING_PENDING (the dialog is
 *         still open), TARN_E_TRUST_DENIED, TARN_E_LOCKED (unlock it first),
 *         TARN_E_NO_DEVICE, TARN_E_NO_USBMUXD, or another lockdown refusal.
 */
TARN_API int TarnPairDevice(PodDevice *device);

/* ------------------------------------------------------------------------ */
/* Apps and their Documents                                                  */
/* ------------------------------------------------------------------------ */

/**
 * The apps the person installed (installation_proxy "Browse" of user apps,
 * read page by page as the device sends them), sorted by name, then
 * identifier: an array of dictionaries {"identifier" (bundle identifier),
 * "name" (display name, else bundle name, else the identifier), "version"
 * (short version string, else bundle version, else ""), "file_sharing"
 * (boolean: the app shares files with computers, so that
 * CreatePodDeviceForApp() reaches its Documents)} and, with with_icons not
 * 0, "icon" (data: the app's icon as PNG, from springboardservices; left
 * out when the device gives none).
 *
 * Over the held connection's lockdown session when there is one, else over
 * a connection of its own: one secure handshake for the list and all its
 * icons. Needs no InitDevice(). Prints nothing.
 * @return A new array (empty when no app is installed), or NULL
 *         (TarnLastError() says why: the device cannot be reached, the
 *         connection broke, TARN_E_DEVICE when the device answered the
 *         list with an error).
 */
TARN_API plist_t TarnListApps(PodDevice *device, int with_icons);

/**
 * Creates a handle for the Documents of one app: the same handle as
 * CreatePodDevice() gives, with every slot filled, except that its
 * connections reach the app's files instead of the media partition. Each
 * connection asks house_arrest to vend the app's Documents
 * ("VendDocuments") and speaks the file conduit over that connection, so
 * every file-system function works on it unchanged: GetDirOrFileInfo(),
 * IsDirExist(), IsFileExist(), GetPodDir(), SearchFile(), MakeDir(),
 * RenamePath(), DeleteFile(), DeleteDir(), the copies both ways with
 * progress and cancel, CopyDeviceDirectory(), and, over the held
 * connection (TarnHoldConnection(), TarnHeldClient()), the workers and
 * single requests that take a client.
 *
 * Paths are the app's as the device presents them: the shared files are
 * below "/Documents" (what `ifuse --documents` shows as its root); the
 * container root "/" holds nothing else one may write to. No media sync
 * guards an app's files, so the sync lock is not taken on them:
 * TarnSyncLock() on such a client returns 0 and records nothing.
 *
 * The app is not asked for here: the first call that connects records
 * TARN_E_APP_NOT_INSTALLED, TARN_E_APP_NOT_SHARING or TARN_E_APP_REFUSED
 * when its Documents cannot be vended (TarnHoldConnection() then returns
 * 1). The catalogue calls (InitDevice(), the lists, GetDeviceInfo()) see
 * the app's files and find no media there: use a handle from
 * CreatePodDevice() for them. Prints "CreatePodDevice".
 * @param device_id Device identifier (copied).
 * @param bundle_id The app's bundle identifier (copied), as TarnListApps()
 *        gives it.
 * @return A new handle, released with FreePodDevice(); NULL when either
 *         argument is NULL or empty (TARN_E_INVALID_ARGUMENT).
 */
TARN_API PodDevice *CreatePodDeviceForApp(const char *device_id, const char *bundle_id);

/* ------------------------------------------------------------------------ */
/* Device information and storage use                                        */
/* ------------------------------------------------------------------------ */

/**
 * Describes the device: "UniqueDeviceID", "DeviceName", "Type", "Version",
 * "SerialNumber", then "Catacity" and "Available" (bytes, when the device
 * reports them), "Audio", "Video", "Photos", "Others" (bytes). A value the
 * device does not have leaves its key out.
 *
 * Needs an initialised handle (InitDevice()). Prints "GetDeviceInfo", the
 * lines of GetMusicList(), GetMovieList() and GetCameraPVList(), then
 * "GetDeviceInfo end.." and the result (PrintPlist()).
 * @return A new dictionary, or NULL when the device cannot be reached.
 */
TARN_API plist_t GetDeviceInfo(PodDevice *device);

/**
 * Adds the storage keys ("Catacity", "Available", "Audio", "Video",
 * "Photos", "Others") to info. "Others" is capacity - free - audio - video -
 * photos in wrapping 64-bit arithmetic.
 * @param client File-conduit client, may be NULL (no capacity keys then).
 * @param info Dictionary to add to, owned by the caller.
 */
TARN_API void SetDeviceUsage(PodDevice *device, afc_client_t client, plist_t info);

/* ------------------------------------------------------------------------ */
/* Media databases: location and local copy                                  */
/* ------------------------------------------------------------------------ */

/**
 * Initialises a handle: stores a copy of host_dir in hostDir (first, so it
 * is set also on failure), connects (label "iPod"), finds the media
 * databases, stores them in dbInfo and copies each into host_dir under its
 * base name unless a file of that name is already there (a copy cut short
 * is not left there). A SQLite database the device keeps with a write-ahead
 * log (a current phone's music and photo libraries) is copied with its
 * "-wal" and "-shm" under the device's sync lock, checked, and folded into
 * one file, so that the rows that live only in the log are read; a copy
 * the device changed while it was read is made again, and a copy is
 * replaced whenever the device's files changed since it was made (a record
 * "NAME.tarn-source" beside it says from what it was made). When no
 * consistent copy can be made, none is left and TARN_E_DATABASE_UNREADABLE
 * is recorded.
 *
 * dbInfo maps "TrackDb", "BookDb", "UserPictureDb", "CameraDb",
 * "RecordingDb" (in this order, each only when a file was found) to an array
 * of {"Type": index in its path table, "Path": device path} dictionaries in
 * table order.
 *
 * Prints "InitDevice", and "......begin CopyDeviceFile" / "......end
 * CopyDeviceFile" around every copy made.
 * @param host_dir Host working directory; must contain a '/' and not end with one.
 * @return 0 on success, 1 when the device cannot be connected or refuses the
 *         handshake (TarnLastError() says why). A refused file-conduit
 *         service still gives 0 with an empty dbInfo, and records
 *         TARN_E_SERVICE_REFUSED; so does a copy that failed (its reason).
 */
TARN_API int InitDevice(PodDevice *device, const char *host_dir);

/** @return 1 when path exists on the device and its size is not 0, else 0. */
TARN_API int IsPodFileValid(afc_client_t client, const char *path);

/**
 * @name Database entry builders
 * Each asks the device, over an open file-conduit client (still the
 * caller's), which files of its path table are present with a size other
 * than 0, and returns a new array of {"Type", "Path"} dictionaries for them
 * in table order ("Type" is the path's index in the table), or NULL when
 * none is present. The caller releases the array with plist_free().
 * Nothing is printed.
 * @{
 */
/** The music databases, the purchases plist and the music library MediaLibrary.sqlitedb (five paths). */
TARN_API plist_t GetMusicDBFileInfo(afc_client_t client);
/** Podcasts live in the music databases: the result of GetMusicDBFileInfo(). */
TARN_API plist_t GetPodcastDBFileInfo(afc_client_t client);
/** TV shows live in the music databases: the result of GetMusicDBFileInfo(). */
TARN_API plist_t GetTvshowDBFileInfo(afc_client_t client);
/** Audiobooks live in the music databases: the result of GetMusicDBFileInfo(). */
TARN_API plist_t GetAudioBookDBFileInfo(afc_client_t client);
/** Movies live in the music databases: the result of GetMusicDBFileInfo(). */
TARN_API plist_t GetMovieDBFileInfo(afc_client_t client);
/** The two music databases and the two book catalogues (four paths). */
TARN_API plist_t GetBookDBFileInfo(afc_client_t client);
/** The camera-roll database "/PhotoData/Photos.sqlite" (one path). */
TARN_API plist_t GetCameraDBFileInfo(afc_client_t client);
/** The three music databases and "/Recordings/Recordings.db" (four paths). */
TARN_API plist_t GetRecordingDBFileInfo(afc_client_t client);
/** The photo database "/Photos/Photo Database" (one path). */
TARN_API plist_t GetUserPictureDBFileInfo(afc_client_t client);
/** @} */

/**
 * Copies the files of a database entry into the handle's hostDir, skipping
 * every file already there. A copy cut short (the device file not read to its
 * end) is removed again, so that the next InitDevice copies it anew.
 * @param entry An entry as built above, or NULL.
 * @return 1 when entry is NULL, else 0 (whatever the copies gave).
 */
TARN_API int CopyDbFileToNativeDir(PodDevice *device, afc_client_t client, plist_t entry);

/**
 * Parses a host copy of the compressed music database (iTunesCDB). A
 * database whose records libgpod could not parse safely (lengths that lead
 * outside the file or make no progress, a track holding a string twice), or
 * whose checksum fails, gives NULL.
 * @param path Host path; NULL gives a warning and NULL.
 * @param error Receives the error report (libgpod's, or why the file was
 *        refused), may be NULL.
 * @return The parsed database, released with itdb_free(), or NULL.
 */
TARN_API Itdb_iTunesDB *m_itdb_parse_file(const char *path, GError **error);

/* ------------------------------------------------------------------------ */
/* Music catalogue                                                           */
/* ------------------------------------------------------------------------ */

/*
 * List functions: (handle, reserved, reserved); the two reserved words are
 * ignored (pass 0, 0). The handle must be initialised (InitDevice()).
 *
 * A track list result is a dictionary {"number", "total" (bytes), "item"}
 * whose items carry, in order, "id", "size", "path", "title", "time",
 * "artist", "album", "genre", "rating", "plays". NULL when the handle has no
 * music database, it cannot be parsed, or it holds no tracks.
 */

/*
 * On a phone that keeps a music library (MediaLibrary.sqlitedb) every list
 * below reads it (ReadTrackDbTypeSQLITE()), and its items carry more keys
 * after the ten; a legacy iTunesCDB such a phone keeps beside it is not read,
 * as the phone no longer updates it, nor is the purchases plist, whose
 * purchases the library holds.
 */

/** Music (and purchased music, last). Prints "GetAudioList". */
TARN_API plist_t GetMusicList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);
/** Movies. Prints "GetVideoList". */
TARN_API plist_t GetMovieList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);
/** Podcasts and video podcasts. Prints nothing. */
TARN_API plist_t GetPodcastList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);
/** TV shows. Prints nothing. */
TARN_API plist_t GetTvshowList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);
/** Audiobooks. Prints nothing. */
TARN_API plist_t GetAudioBookList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);
/** Ringtones. Prints nothing. */
TARN_API plist_t GetRingtonesList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);

/**
 * Reads the track list of one media kind (0 music, 1 movies, 2 podcasts,
 * 3 TV shows, 4 audiobooks, 5 ringtones) from a host copy of iTunesCDB.
 * Its items have the ten keys of a media item and no more: whether a track
 * has a cover is TarnCopyArtwork()'s to answer.
 * @return A new track list result or NULL.
 */
TARN_API plist_t ReadTrackDbTypeCdb(const char *path, uint32_t kind);

/**
 * Reads the track list of one media kind (numbered as for
 * ReadTrackDbTypeCdb()) from a host copy of a phone's music library,
 * MediaLibrary.sqlitedb, as phones since iOS 5 keep it. Kinds are told
 * apart by the library's media-type bits: songs and music videos are music;
 * movies and home videos movies; podcasts, video podcasts and iTunes U
 * podcasts; files under "/iTunes_Control/Ringtones" ringtones. The tables
 * and columns are asked of the database itself, so that every schema from
 * iOS 5 on reads.
 *
 * Items carry the ten keys of every track list, then, in this order:
 * "album_artist", "composer" (strings, "" when unknown), "track", "disc",
 * "year", "date_added" (unsigned integers, seconds since 1970 for the date,
 * 0 when unknown), "cloud" (boolean: the phone has no file for the track,
 * which is in iCloud or not downloaded; its "path" is "" and its "size" 0,
 * and it is counted in "number" but adds nothing to "total") and
 * "purchased" (boolean: bought from the store), and "artwork" only where
 * the library names a cover for the track: the device path of that cover,
 * a JPEG or PNG file below "/iTunes_Control/iTunes/Artwork/Originals"
 * (TarnCopyArtwork() copies it; the tracks of one album usually share
 * it). Libraries of the older schema (iOS 8 and before) keep their covers
 * where no published source says, and their items carry no "artwork".
 * "id" is the library's
 * 64-bit persistent id, "rating" 0-100 (stars times 20), "time"
 * milliseconds. Items come by artist (unknown artists last), album, disc,
 * track number and title. Prints nothing.
 * @return A new track list result, or NULL when the file is no readable
 *         music library or holds no item (TarnLastError() says why).
 */
TARN_API plist_t ReadTrackDbTypeSQLITE(const char *path, uint32_t kind);

/**
 * Every playlist of a host copy of MediaLibrary.sqlitedb: the whole-library
 * playlist first (named after the phone), then the others by name, as {"name", "number", "item", "kind", "parent"}:
 * "item" holds the members as ReadTrackDbTypeSQLITE() builds them, in
 * playlist order (a track may appear twice); "kind" is "library", "user",
 * "smart", "folder", "genius" or "builtin" (a list the phone made, such as
 * "Purchased"); "parent" names the folder holding the playlist, or "".
 * Lists the phone hides are left out. Prints nothing.
 * @return A new array, or NULL (TarnLastError() says why).
 */
TARN_API plist_t ReadPlaylistDbTypeSQLITE(const char *path);

/**
 * Copies the cover of a track to a host file. On a current phone, the file
 * its music library names for the track (its "artwork" key), read from the
 * device's artwork folder as it is (a JPEG or PNG). On an older device
 * (music in iTunesCDB), the track's picture in the device's artwork
 * database (/iTunes_Control/Artwork: ArtworkDB and the F<format>_<n>.ithmb
 * files beside it), in the largest of the cover formats that the device's
 * /iTunes_Control/Device/SysInfoExtended names, encoded as PNG. The host
 * file is written whole under a temporary name in its folder and renamed
 * over host_path once complete, so an earlier file there stays as it was
 * when the copy fails.
 *
 * Needs an initialised handle (InitDevice()) of a device with a music
 * library (MediaLibrary.sqlitedb or iTunesCDB). Over the held connection
 * when there is one (TarnHoldConnection()), so that the covers of a whole
 * library cost one secure session; otherwise over a connection of its own.
 * Takes no sync lock. An older device's artwork files are read on the
 * first cover asked for and kept in the handle's folder (hostDir/Artwork);
 * later calls ask the device only for their sizes and times, and read again
 * a file that changed. What those files and the music database say is read
 * once and kept in the process (for the two devices asked last) while none
 * of them changes, so that the covers after the first cost no parse of the
 * music database. Prints "block_size: 65536l" and "finish _CopyFile"
 * for each device file it reads.
 * @param track_id The track's "id" as the track lists give it (the
 *        library's 64-bit persistent id; an older device's track id).
 * @param host_path Host file to write; its folder must exist.
 * @return 0 when the cover was copied; 1 otherwise, with TarnLastError()
 *         saying why: TARN_E_NOT_FOUND (the library holds no such track,
 *         names no cover for it, or the device has no file there; an older
 *         device without an artwork database),
 *         TARN_E_DATABASE_ABSENT (no music library on the handle, or a
 *         handle not initialised),
 *         TARN_E_DATABASE_UNREADABLE (the library cannot be read, or names
 *         a cover outside its artwork folder, which is not followed; an
 *         older device's track has a cover that its artwork database,
 *         damaged or of formats the device does not name, does not give),
 *         TARN_E_DEVICE (the device's file is larger than 16 MiB, more than
 *         any cover; an artwork file of more than 1 GiB), TARN_E_HOST_IO
 *         with host_errno, TARN_E_INVALID_ARGUMENT, or a reason of the
 *         connection.
 */
TARN_API int TarnCopyArtwork(PodDevice *device, uint64_t track_id, const char *host_path);

/** @return 1 when the track's media type belongs to kind, else 0. */
TARN_API int IsMatchTrackType(Itdb_Track *track, uint32_t kind);

/**
 * Every playlist (the master playlist included): an array of {"name",
 * "number", "item"} with a full media item per member, in membership order.
 * From a phone's music library the playlists come as
 * ReadPlaylistDbTypeSQLITE() gives them.
 * Prints "GetPlayList"; when the handle has a music database also the result
 * (PrintPlist()) and "GetPlayList END".
 */
TARN_API plist_t GetPlayList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);

/**
 * Reads the playlist list from a host copy of iTunesCDB.
 * Prints "playlists_number is %d\n" once the database is parsed.
 */
TARN_API plist_t ReadPlaylistDbTypeCdb(const char *path);

/**
 * Appends one media item per purchase of a host copy of TrackData.plist to
 * items, asking the device (under the sync lock) for each file's size.
 * Purchases whose file is missing on the device or whose entry lacks
 * "itemId" or "mediaAssetFilename" are skipped.
 * @param items Array to append to, owned by the caller.
 * @param total Byte counter to add the sizes to.
 * @param parser plist_from_xml or plist_from_bin.
 * @return The number of items appended.
 */
TARN_API uint32_t GetPurchaseMusicListFromPlist(PodDevice *device, const char *path, plist_t items,
                                                uint64_t *total, PodPlistParser parser);

/* ------------------------------------------------------------------------ */
/* Recordings, books, camera roll, pictures                                  */
/* ------------------------------------------------------------------------ */

/**
 * Voice recordings: {"number", "total", "item"} with items "id", "path",
 * "title", "time", "size", "name" from Recordings.db, or {"number", "item"}
 * from the music database, whichever dbInfo lists first and yields a
 * recording. Prints "name is %s\n" per database row, then
 * "GetRecordingList END!!" and the result (PrintPlist()). On a phone with a
 * music library the voice memos synced into that library are listed
 * instead of the stale music database's; a phone that has neither keeps
 * its memos in the Voice Memos app: NULL, with TARN_E_NOT_REACHABLE.
 */
TARN_API plist_t GetRecordingList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);
/** Reads a host copy of Recordings.db; file sizes come from the device. */
TARN_API plist_t ReadRecordingDbTypeSQLITE(PodDevice *device, const char *path);
/** SQLite row callback of ReadRecordingDbTypeSQLITE(); context is a RecordingRowContext. */
TARN_API int RecordingDbCallback(void *context, int columns, char **values, char **names);
/** Reads the recordings listed in a host copy of iTunesCDB. */
TARN_API plist_t ReadRecordingDbTypeCdb(const char *path);
/** @return 1 when path is not NULL and contains "Recordings", else 0. */
TARN_API int IsMatchRecordingPath(const char *path);
/** Copies exactly 15 bytes of source into dest (a zero-filled buffer of at least 16 bytes). */
TARN_API char *GetFormatedRecordingTime(const char *source, char *dest);

/**
 * Books: an array of catalogues {"catalog" ("UserBook" or "PurchaseBook"),
 * "number", "item"}; items "title", "time", "artist", "album", "rating",
 * "genre", "path". NULL when the handle has no book database; on a phone
 * with a music library and no book catalogue NULL with
 * TARN_E_NOT_REACHABLE (its books are in the Books app). Prints
 * "GetBookList" and the result (PrintPlist()).
 */
TARN_API plist_t GetBookList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);
/** Reads a catalogue; name is "/Books.plist" or "/Purchases.plist". */
TARN_API plist_t ReadBookDbTypePLIST(const char *path, const char *name);
/** Reads a binary catalogue of purchased books. */
TARN_API plist_t ReadBookDbTypePLISTBin(const char *path);
/** Reads a catalogue with the given catalogue name, device folder prefix and parser. */
TARN_API plist_t ReadBookFromPLIST(const char *path, const char *catalog, const char *prefix,
                                   PodPlistParser parser);

/**
 * Camera roll: {"number", "total", "item"} with items "size", "path", "time"
 * (local time "%Y/%m/%d %H:%M:%S") from Photos.sqlite, or from the walk of
 * "/DCIM/100APPLE" when the database gives nothing. A current phone's
 * photo library (asset table ZASSET, or ZGENERICASSET on iOS 11-13) gives
 * the visible pictures oldest first, "time" being when each was taken,
 * with more keys after the three: "taken" (seconds since 1970, 0 unknown),
 * "kind" ("photo", "video", "live" or "screenshot"), "width", "height",
 * "duration" (milliseconds), "live_video" (the device path of a Live
 * Photo's movie, or ""), "albums" (array of the titles of the person's
 * albums that hold it), "thumbnail" (where the phone keeps a JPEG
 * thumbnail, when it has made one) and "cloud" (true when the original is
 * not on the phone, with optimised storage: "size" 0, nothing to copy).
 * Pictures in Recently Deleted and hidden ones are left out; sizes come
 * from the database, and which originals are on the phone from one listing
 * per folder. Prints
 * "GetCameraPVList"; when the device has the database, the database's result
 * (PrintPlist(): only its separator line when the database gives nothing),
 * and "GetCameraPVList END" when it gave a list. The walk prints
 * "GetUserPictureListFromDevice".
 */
TARN_API plist_t GetCameraPVList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);
/** Reads a host copy of Photos.sqlite; sizes and times come from the device (from the database for a photo library). */
TARN_API plist_t ReadCameraDbTypeSQLITE(PodDevice *device, const char *path);
/** SQLite row callback of ReadCameraDbTypeSQLITE(); context is a CameraRowContext. */
TARN_API int CameraPictureCallback(void *context, int columns, char **values, char **names);
/** Walks "/DCIM/100APPLE" for pictures and videos. */
TARN_API plist_t ReadCameraDbTypeFromDevice(PodDevice *device);

/**
 * Synced pictures: the walk of "/Photos/Thumbs", "/PhotoStreamsData" and
 * "/PhotoData/Sync/100SYNCD". Prints "GetUserPictureListFromDevice".
 */
TARN_API plist_t GetUserPictureListFromDevice(PodDevice *device);
/**
 * Walks device folders (under the sync lock) for files whose lower-cased
 * extension occurs in ".jpg;.jpeg;.gif;.png;.mov;".
 * Prints "GetUserPictureListFromDevice".
 * @return {"number", "total", "item"} or NULL when no picture was found.
 */
TARN_API plist_t GetPictureListFromDevice(PodDevice *device, const char **folders, int32_t count);
/** Appends the pictures of one folder tree to items and their sizes to total. Returns 0. */
TARN_API int GetDirAllPicture(afc_client_t client, plist_t items, const char *folder, uint64_t *total);
/** Always NULL: the photo database is not read. */
TARN_API plist_t GetUserPictureList(PodDevice *device, uint32_t reserved1, uint32_t reserved2);
/** Always NULL. */
TARN_API plist_t ReadUserPictureDbTypeCdb(const char *path);

/* ------------------------------------------------------------------------ */
/* Device file system                                                        */
/* ------------------------------------------------------------------------ */

/** The slots of a file-information vector (GetFileInfo()), in their order. */
typedef enum TarnFileInfoSlot {
    TARN_INFO_KIND = 0,      /**< "st_ifmt": "S_IFDIR" for a directory */
    TARN_INFO_SIZE = 1,      /**< size in bytes */
    TARN_INFO_MTIME = 2,     /**< modification time, whole seconds */
    TARN_INFO_BLOCKS = 3,    /**< blocks */
    TARN_INFO_BIRTHTIME = 4, /**< creation time, whole seconds */
    TARN_INFO_VALUES = 5,    /**< the number of value slots; the slot after them is NULL */
    TARN_INFO_SLOTS = 6      /**< the length of the vector */
} TarnFileInfoSlot;

/**
 * The file-information vector of a device path, with an open client: six
 * slots (TarnFileInfoSlot), 0 "st_ifmt" (a directory is "S_IFDIR"), 1 size,
 * 2 modification time in whole seconds, 3 blocks, 4 creation time in whole
 * seconds, 5 NULL.
 * A slot the device did not send is NULL; all are NULL when the query failed.
 * @return A new vector (never NULL), released with FreeFileInfo(). Not with
 *         g_strfreev(), which stops at the first NULL slot and so leaks the
 *         slots after a key the device left out.
 */
TARN_API char **GetFileInfo(afc_client_t client, const char *path);
/** Releases a file-information vector, every slot included; NULL is accepted. */
TARN_API void FreeFileInfo(char **info);
/** GetFileInfo() over a per-call connection. Prints nothing. */
TARN_API char **GetDirOrFileInfo(PodDevice *device, const char *path);
/**
 * @return 1 when path can be listed as a directory, else 0.
 * Prints "IsDirExist" and "1afc_error_t %d\n" (and "afc_error_t %d\n" on error).
 */
TARN_API int IsDirExist(PodDevice *device, const char *path);
/**
 * @return 1 when path can be opened read-only, else 0.
 * Prints "IsFileExist" and "1afc_error_t %d\n" (and "afc_error_t %d\n" on error).
 */
TARN_API int IsFileExist(PodDevice *device, const char *path);
/**
 * Creates a device directory (and its parents) under the sync lock.
 * Prints "MakeDir".
 * @return 0 when the connection and the lock file could be opened, else 1.
 */
TARN_API int MakeDir(PodDevice *device, const char *path);

/**
 * Downloads a device file to a host path in 64 KiB blocks, under the sync
 * lock. A cancelled download leaves its partial host file.
 * Prints "CopyDeviceFile", "block_size: 65536l", "finish _CopyFile" and
 * "finish CopyDeviceFile".
 * @param progress Callback or NULL; receives the handle's userData.
 */
TARN_API void CopyFileFromDeviceToNative(PodDevice *device, const char *device_path,
                                         const char *host_path, PodProgressCallback progress);
/**
 * Uploads a host file to a device path in 64 KiB blocks, under the sync
 * lock. Prints "CopyFileFromNativeToDevice" (and "can't read file %s\n").
 * @return 0 when the connection and the lock file were opened, else 1.
 */
TARN_API int CopyFileFromNativeToDevice(PodDevice *device, const char *host_path,
                                        const char *device_path, PodProgressCallback progress);
/**
 * Copies the content of a device directory into a host directory (created
 * with its subdirectories), under the sync lock. Entry names that are empty,
 * ".", "..", or contain '/' are skipped. Prints "CopyDeviceDirectory" and
 * a trace per entry.
 */
TARN_API void CopyDeviceDirectory(PodDevice *device, const char *device_dir, const char *host_dir);
/*
 * The workers below serve batches over one connection (OpenIdeviceAndAfC(),
 * TarnSyncLock()). Each clears the record on entry; after each file,
 * TarnLastError() tells how it ended, and TARN_E_CONNECTION_LOST means that
 * the client is of no further use: stop the batch there.
 */
/** Download worker over an open client; takes no lock. */
TARN_API void _CopyFileFromDeviceToNative(PodDevice *device, afc_client_t client, const char *device_path,
                                          const char *host_path, PodProgressCallback progress);
/** Upload worker over an open client; takes no lock. */
TARN_API void _TarnCopyFileFromNativeToDevice(PodDevice *device, afc_client_t client, const char *host_path,
                                              const char *device_path, PodProgressCallback progress);
/** Copies one entry of device_parent (recursively) into host_parent; takes no lock. */
TARN_API void _CopyDirectory(PodDevice *device, afc_client_t client, const char *device_parent,
                             const char *name, const char *host_parent);

/**
 * Snapshot of a device directory to max_level levels (0: no limit, but at
 * most TARN_MAX_WALK_DEPTH).
 * @return A new root, released with FreePodDir(root, 1, root).
 */
TARN_API PodDir *GetPodDir(PodDevice *device, const char *path, uint32_t max_level);
/**
 * Releases the subtree of dir and, when free_self is non-zero, dir itself.
 * Prints "next_dir %s\n" and "next_file %s\n" per record.
 */
TARN_API void FreePodDir(PodDir *dir, int free_self, PodDir *root);
/** Fills a directory record's dates from a file-information vector. */
TARN_API void SetDirInfo(char **info, PodDir *dir, const char *path);
/** Fills a file record's size and dates from a file-information vector. */
TARN_API void SetFileInfo(char **info, PodFile *file, const char *path);
/** The recursive snapshot builder: records dir's entries, counting into root. */
TARN_API void StoreSubFolderAndFilesInfo(afc_client_t client, PodDir *dir, PodDir *root, int32_t level);

/**
 * Finds the files and directories below dir whose lower-cased names contain
 * keyword (as given), in pre-order.
 * @return The first result or NULL; release the list with FreeSearchResult().
 */
TARN_API PodSearchItem *SearchFile(PodDevice *device, const char *dir, const char *keyword);
/** The recursive search worker; appends to state. */
TARN_API void InternalSearchFile(afc_client_t client, const char *dir, PodSearchState *state);
/** Releases a search result list, its records and their texts; NULL is accepted. */
TARN_API void FreeSearchResult(PodSearchItem *first);
/** Renames or moves a device path. Prints "RenamePath". @return 0 in every case. */
TARN_API int RenamePath(PodDevice *device, const char *old_path, const char *new_path);
/** Removes a device file or empty directory. Prints "DeleteFile". @return 0 or 1. */
TARN_API int DeleteFile(PodDevice *device, const char *path);
/** Removes a device directory and everything below it, post-order. @return 0 in every case. */
TARN_API int DeleteDir(PodDevice *device, const char *path);
/*
 * Single requests over an open client (TarnHeldClient(), OpenIdeviceAndAfC()),
 * which stays the caller's. Each returns 0 on success and 1 on failure with
 * the reason recorded (TARN_E_NOT_FOUND, TARN_E_PERMISSION, TARN_E_DEVICE_FULL,
 * TARN_E_CONNECTION_LOST, TARN_E_FILE_SERVICE with afc_error, or
 * TARN_E_INVALID_ARGUMENT for a NULL argument). They take no sync lock and
 * print nothing.
 */
/** Creates one device directory; its parent must exist. An existing directory is success. */
TARN_API int TarnMakeDirectory(afc_client_t client, const char *path);
/** Removes a device file or empty directory. */
TARN_API int TarnRemovePath(afc_client_t client, const char *path);
/** Renames or moves a device path; an existing file at new_path is replaced. */
TARN_API int TarnRenamePath(afc_client_t client, const char *old_path, const char *new_path);
/**
 * Where a device symbolic link points.
 * @return A new text released with free(); NULL when path is no symbolic link
 *         (nothing recorded) or cannot be asked about (the reason recorded).
 */
TARN_API char *TarnLinkTarget(afc_client_t client, const char *path);
/** The post-order delete worker over a snapshot; releases the records it removes. */
TARN_API void _TarnDeleteDir(afc_client_t client, PodDir *dir, PodDir *root);

/* ------------------------------------------------------------------------ */
/* Helpers                                                                   */
/* ------------------------------------------------------------------------ */

/** Inserts text (the empty string for NULL) under key. @return 0. */
TARN_API int InsertPlistDictString(plist_t dict, const char *key, const char *text);
/** Inserts text, or "(None)" when text is NULL or empty. @return 0. */
TARN_API int AddNoneValuePlistDictString(plist_t dict, const char *key, const char *text);
/** Inserts the string value of node (the empty string when NULL or not a string). */
TARN_API void AddPlistStrToDict(plist_t dict, const char *key, plist_t node);
/** Inserts the string value of node, or "(None)" when NULL, not a string or empty. */
TARN_API void AddPlistNoneStrToDict(plist_t dict, const char *key, plist_t node);
/** Appends text (the empty string for NULL). @return 0. */
TARN_API int AppendPlistArrayString(plist_t array, const char *text);
/** @return A deep copy of node, or a new unsigned integer 0 for NULL. */
TARN_API plist_t PlistCopyZero(plist_t node);
/** @return A deep copy of node, or a new empty string for NULL. */
TARN_API plist_t PlistCopyEmptyString(plist_t node);
/**
 * Prints a line of 34 full stops, then (node not NULL) "the xml_doc:\n %s\n"
 * with node as XML.
 */
TARN_API void PrintPlist(plist_t node);
/** @return 1 when the host file starts with "bplist00", else 0. */
TARN_API int IsBinPlist(const char *path);
/** @return A pointer into path just past its last '/', or path itself when it has none. */
TARN_API const char *GetFileName(const char *path);
/** @return A new copy of path from its last '.' on, or NULL; release with free(). */
TARN_API char *GetFilePostfix(const char *path);
/** @return first followed by second, a new text released with free(). */
TARN_API char *ConcatStr(const char *first, const char *second);
/**
 * @return dir + "/" + name when dir contains a '/' that is not its last
 *         character, else dir + name; a new text released with free().
 */
TARN_API char *ConcatFilePath(const char *dir, const char *name);
/** @return 1 when needle occurs in text (case-sensitive), else 0. */
TARN_API int IsExistInStr(const char *text, const char *needle);
/**
 * @return A new copy of text (empty for NULL) with every target character
 *         replaced by replacement; release with free().
 */
TARN_API char *ReplaceChar(const char *text, char replacement, char target);
/** @return The size of a host file (stat), 0 when it cannot be read. */
TARN_API int64_t GetFileSize(const char *path);
/** @return The size of a host file by opening and seeking, 0 when it cannot be read. */
TARN_API int64_t WGetFileSize(const char *path);
/** Creates a host directory with its parents (TarnMkdir()); returns its status. */
TARN_API int Mkdir(const char *path);

/* ------------------------------------------------------------------------ */
/* Reasons for failures                                                      */
/* ------------------------------------------------------------------------ */

/**
 * Why the last library call on this thread failed (or what it met on its
 * way). The functions above answer only 0/1 or NULL; this record sits beside
 * those results and changes none of them.
 *
 * Every exported function clears the calling thread's record on entry and
 * sets it where it fails, so the record always describes the most recent
 * call. Exceptions: TarnLastError(), TarnErrorMessage() and the functions
 * that only release (FreePodDeviceService(), FreePodDevice(),
 * CloseIdeviceAndAfC(), FreePodDir(), FreeSearchResult(), TarnSyncUnlock())
 * leave the record alone, so that a caller may release first and report
 * after. The library's own calls to its exported functions add to the
 * caller's record rather than clear it.
 *
 * A call may also succeed and leave a record: a reason that did not stop it
 * (TARN_E_SYNC_LOCK_BUSY: the call went on without the device's sync lock;
 * TARN_E_WALK_CUT: a listing complete up to the walk bounds; a list returned
 * although one of its databases could not be read; InitDevice() and
 * GetDeviceInfo() without the file service). When a call meets several
 * failures, the first is kept, except that a reason that breaks the
 * connection (codes 1 to 9) replaces any other, since it explains every
 * failure after it, and any failure replaces TARN_E_SYNC_LOCK_BUSY.
 * Records are per thread: a failure on one thread is never seen on another.
 *
 * Which functions record which reasons:
 *  - TARN_E_NO_USBMUXD, TARN_E_NO_DEVICE: GetDevicesId() and every function
 *    that opens a connection: OpenIdeviceAndAfC(), TarnHoldConnection(),
 *    TarnGetDeviceName(), TarnPairDevice(), InitDevice(),
 *    GetDeviceInfo(), CopyFileFromDeviceToNative(),
 *    CopyFileFromNativeToDevice(), CopyDeviceDirectory(), MakeDir(),
 *    IsDirExist(), IsFileExist(), RenamePath(), DeleteFile(), DeleteDir(),
 *    GetPodDir(), GetDirOrFileInfo(), SearchFile(),
 *    GetUserPictureListFromDevice(), GetPictureListFromDevice(),
 *    ReadCameraDbTypeFromDevice(), ReadCameraDbTypeSQLITE(),
 *    ReadRecordingDbTypeSQLITE(), GetPurchaseMusicListFromPlist(),
 *    TarnCopyArtwork(), and the lists that call them (GetMusicList(),
 *    GetRecordingList(), GetCameraPVList()).
 *  - TARN_E_NOT_PAIRED, TARN_E_PAIRING_PENDING, TARN_E_TRUST_DENIED,
 *    TARN_E_LOCKED, TARN_E_PAIRING_INVALID, TARN_E_SERVICE_REFUSED
 *    (lockdown_error set): the same functions except GetDevicesId();
 *    TarnGetDeviceName() and TarnPairDevice() record only lockdown refusals of
 *    their own request.
 *    InitDevice() and GetDeviceInfo() record TARN_E_SERVICE_REFUSED and
 *    still succeed.
 *  - TARN_E_CONNECTION_LOST: the functions that open a connection, and
 *    those that work over a client: GetFileInfo(), IsPodFileValid(), the
 *    database entry builders, CopyDbFileToNativeDir(), SetDeviceUsage(),
 *    _CopyFileFromDeviceToNative(), _TarnCopyFileFromNativeToDevice(),
 *    _CopyDirectory(), StoreSubFolderAndFilesInfo(), InternalSearchFile(),
 *    _TarnDeleteDir(), GetDirAllPicture(), TarnSyncLock(). done/total are
 *    bytes for the single-file copies and their workers, and done is the
 *    entries visited for walks (GetPodDir(), SearchFile(), DeleteDir(),
 *    CopyDeviceDirectory(), _CopyDirectory(), StoreSubFolderAndFilesInfo(),
 *    InternalSearchFile(), the picture walks). Once lost, every later request
 *    over the same client records it again, so a batch can stop at the first.
 *  - TARN_E_NOT_FOUND, TARN_E_PERMISSION, TARN_E_FILE_SERVICE (afc_error
 *    set): every function that asks the device about a path: GetFileInfo(),
 *    GetDirOrFileInfo(), IsPodFileValid(), IsDirExist(), IsFileExist(),
 *    MakeDir(), RenamePath(), DeleteFile(), DeleteDir(), _TarnDeleteDir(),
 *    GetPodDir(), SearchFile(), InternalSearchFile(),
 *    StoreSubFolderAndFilesInfo(), the copies and their workers,
 *    CopyDbFileToNativeDir(), InitDevice(), TarnSyncLock(),
 *    TarnCopyArtwork(). Only the start
 *    directory of a walk counts: entries that vanish or cannot be read
 *    below it are passed over as before, and the picture walks pass over
 *    folders the device does not have.
 *  - TARN_E_NOT_FOUND, TARN_E_PERMISSION, TARN_E_HOST_IO with host_errno:
 *    the host side of CopyFileFromDeviceToNative(), TarnCopyArtwork(),
 *    CopyFileFromNativeToDevice(), CopyDeviceDirectory(), their workers,
 *    CopyDbFileToNativeDir(), InitDevice(), and Mkdir().
 *  - TARN_E_DEVICE_FULL: any request that writes: the uploads, MakeDir().
 *  - TARN_E_DATABASE_ABSENT, TARN_E_DATABASE_UNREADABLE: the catalogue
 *    lists (GetMusicList() ... GetCameraPVList(), GetPlayList(),
 *    GetBookList(), GetRecordingList(), GetUserPictureList()) and the
 *    readers of host copies (ReadTrackDbTypeCdb(), ReadPlaylistDbTypeCdb(),
 *    ReadRecordingDbTypeCdb(), ReadRecordingDbTypeSQLITE(),
 *    ReadCameraDbTypeSQLITE(), ReadBookDbTypePLIST(),
 *    ReadBookDbTypePLISTBin(), ReadBookFromPLIST(),
 *    GetPurchaseMusicListFromPlist(), m_itdb_parse_file()), and
 *    TarnCopyArtwork().
 *    GetCameraPVList() records no absent database: it walks the camera
 *    folder instead.
 *  - TARN_E_WALK_CUT (done = entries visited): GetPodDir(), SearchFile(),
 *    InternalSearchFile(), StoreSubFolderAndFilesInfo(), DeleteDir(),
 *    CopyDeviceDirectory(), _CopyDirectory(), the picture walks
 *    (GetUserPictureListFromDevice(), GetPictureListFromDevice(),
 *    GetDirAllPicture(), ReadCameraDbTypeFromDevice(), GetCameraPVList()).
 *  - TARN_E_SHORT_COPY: the downloads (CopyFileFromDeviceToNative(),
 *    _CopyFileFromDeviceToNative(), CopyDeviceDirectory(), _CopyDirectory(),
 *    InitDevice(), CopyDbFileToNativeDir()).
 *  - TARN_E_CANCELLED: the single-file copies and their workers.
 *  - TARN_E_SYNC_LOCK_BUSY: TarnSyncLock() and every function that takes
 *    the lock: CopyFileFromDeviceToNative(), CopyFileFromNativeToDevice(),
 *    CopyDeviceDirectory(), MakeDir(), GetPurchaseMusicListFromPlist(),
 *    ReadRecordingDbTypeSQLITE(), ReadCameraDbTypeSQLITE(),
 *    GetPictureListFromDevice() and the lists that call them.
 *  - TARN_E_INVALID_ARGUMENT: a function given NULL (or an unusable value)
 *    where it needs one.
 *  - TARN_E_DEVICE: a lockdown error with no reason of its own
 *    (lockdown_error set); an app list the device answered with an error;
 *    a cover larger than any cover (TarnCopyArtwork()).
 *  - TARN_E_APP_NOT_INSTALLED, TARN_E_APP_NOT_SHARING, TARN_E_APP_REFUSED:
 *    every function that opens a connection, on a handle made by
 *    CreatePodDeviceForApp(). They rank with the reasons that break the
 *    connection: no request reached the app's files.
 * The helpers (plist, path and string helpers) record nothing but
 * TARN_E_HOST_IO from Mkdir().
 */
typedef enum TarnErrorCode {
    TARN_OK = 0,                      /**< No failure recorded. */
    TARN_E_NO_USBMUXD = 1,            /**< The usbmux daemon cannot be reached (not running, or no permission on its socket). */
    TARN_E_NO_DEVICE = 2,             /**< No device with that identifier is attached (or it was unplugged). */
    TARN_E_NOT_PAIRED = 3,            /**< The host has no pairing record for the device. */
    TARN_E_PAIRING_PENDING = 4,       /**< The "Trust this computer" dialog is still open on the device. */
    TARN_E_TRUST_DENIED = 5,          /**< The person tapped "Don't Trust" on the device. */
    TARN_E_LOCKED = 6,                /**< The device is locked with a passcode (or not unlocked since it was switched on). */
    TARN_E_PAIRING_INVALID = 7,       /**< The pairing record no longer matches the device (invalid host ID, failed TLS handshake). */
    TARN_E_SERVICE_REFUSED = 8,       /**< The device refused to start the file service. */
    TARN_E_CONNECTION_LOST = 9,       /**< The connection broke during the call; done/total tell how far it got. */
    TARN_E_NOT_FOUND = 10,            /**< The device path (or host path, see host_errno) does not exist. */
    TARN_E_PERMISSION = 11,           /**< The device (or the host, see host_errno) denied access. */
    TARN_E_DEVICE_FULL = 12,          /**< The device has no space left. */
    TARN_E_FILE_SERVICE = 13,         /**< Another file-service error; afc_error holds its code. */
    TARN_E_DATABASE_UNREADABLE = 14,  /**< A media database is present but cannot be read (corrupt, or a format the library does not read). */
    TARN_E_DATABASE_ABSENT = 15,      /**< The device has no database of the kind asked for (or InitDevice did not copy it). */
    TARN_E_WALK_CUT = 16,             /**< A recursive walk stopped at TARN_MAX_WALK_DEPTH or TARN_MAX_WALK_ENTRIES; done is the entries visited. */
    TARN_E_SHORT_COPY = 17,           /**< A copy ended before the file's size; done/total are the bytes. */
    TARN_E_CANCELLED = 18,            /**< The progress callback asked to stop. */
    TARN_E_SYNC_LOCK_BUSY = 19,       /**< Another party holds the device's sync lock (the device is syncing with another computer). */
    TARN_E_HOST_IO = 20,              /**< A host file could not be read or written; host_errno holds the errno value (ENOSPC: no space left on the host). */
    TARN_E_INVALID_ARGUMENT = 21,     /**< A required argument was NULL, empty or not usable. */
    TARN_E_DEVICE = 22,               /**< Any other failure of the device or its protocol library. */
    TARN_E_NOT_REACHABLE = 23,        /**< The device keeps this kind of media where file access over USB cannot reach it (voice memos and books on current phones). */
    TARN_E_APP_NOT_INSTALLED = 24,    /**< No app with that bundle identifier is installed on the device. */
    TARN_E_APP_NOT_SHARING = 25,      /**< The app is installed but does not share files with computers (UIFileSharingEnabled is off), so its Documents cannot be reached. */
    TARN_E_APP_REFUSED = 26           /**< The device refused access to the app's files for another reason; the message names the device's answer. */
} TarnErrorCode;

/** The reason for the last failure on the calling thread. */
typedef struct TarnError {
    TarnErrorCode code;   /**< TARN_OK when the last call recorded nothing. */
    const char *message;  /**< One sentence for a person, naming the path or device where it helps; never NULL. */
    int afc_error;        /**< The file-service error code behind the reason, or 0. */
    int lockdown_error;   /**< The lockdown error code (libimobiledevice's lockdownd_error_t), or 0. */
    int host_errno;       /**< The errno value of a host-side failure, or 0. */
    uint64_t done;        /**< Bytes or entries done before the failure (TARN_E_CONNECTION_LOST, TARN_E_SHORT_COPY, TARN_E_WALK_CUT, TARN_E_CANCELLED), else 0. */
    uint64_t total;       /**< Bytes or entries the call set out to do, when known, else 0. */
} TarnError;

/**
 * The reason recorded by the last library call on the calling thread.
 *
 * @return A record owned by the library, valid on this thread until its next
 *         library call; never NULL (code TARN_OK when nothing was recorded).
 *         Copy what you need to keep. Prints nothing.
 */
TARN_API const TarnError *TarnLastError(void);
/**
 * A fixed sentence describing a code, for a person to read.
 *
 * @return A static text that is never released; "Unknown error." for a
 *         value that is not a TarnErrorCode. Prints nothing.
 */
TARN_API const char *TarnErrorMessage(int code);
/** Clears the calling thread's record (code TARN_OK). Prints nothing. */
TARN_API void TarnClearError(void);

/* ------------------------------------------------------------------------ */
/* Batches over one connection                                               */
/* ------------------------------------------------------------------------ */

/**
 * Takes the device's sync lock on an open file-conduit client (from
 * OpenIdeviceAndAfC()), so that a batch of work done through the functions
 * that take a client (_CopyFileFromDeviceToNative(),
 * _TarnCopyFileFromNativeToDevice(), _CopyDirectory(), GetFileInfo(), ...)
 * holds the lock once instead of once per file. Prints nothing.
 *
 * @param client Open client; stays the caller's.
 * @return A lock to release with TarnSyncUnlock() before the client is
 *         closed, or 0 when the lock file could not be opened (TarnLastError()
 *         says why). When another party holds the lock (the device is syncing
 *         with another computer) the lock file stays open but unlocked, a
 *         non-zero value is returned and TARN_E_SYNC_LOCK_BUSY is recorded, so
 *         that the caller can decide whether to go on.
 */
TARN_API uint64_t TarnSyncLock(afc_client_t client);
/** Releases a lock from TarnSyncLock(); 0 is accepted. Prints nothing and leaves the reason record alone. */
TARN_API void TarnSyncUnlock(afc_client_t client, uint64_t lock);

#ifdef __cplusplus
}
#endif

#endif /* TARN_DEVICE_H */
