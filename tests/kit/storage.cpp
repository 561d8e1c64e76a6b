#include "kit/storage.h"

#include "kit/faults.h"
#include "kit/machine.h"
#include "kit/nth_call.h"
#include "kit/real.h"
#include "kit/timeline.h"

#include <vunkcore/vunkcore.h>
#include <zevostorage/zevostorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <sys/sysinfo.h>
#include <unistd.h>

namespace {

kit::FakeStorage *fake = nullptr;

/// A list that the fake storage has handed out.
struct Handed {
	std::string freeFunction;
	std::shared_ptr<void> memory;
};

std::map<const void *, Handed> handed;

template <class T>
T Failing(T result)
{
	VUNKCErrSetEx(kit::kFaultCode, "fault", 1);
	return result;
}

int FailingWith(int code)
{
	VUNKCErrSetEx(code, "fake", 1);
	return -1;
}

template <class Record>
void Chain(std::vector<Record> &records)
{
	for (size_t i = 1; i < records.size(); ++i)
		records[i - 1].pNext = &records[i];
}

/// Gives a list to the caller; null when it is empty.
template <class List>
auto *HandOut(std::shared_ptr<List> list, const char *freeFunction)
{
	auto *const first = list->records.empty() ? nullptr : list->records.data();
	if (first != nullptr)
		handed[first] = {freeFunction, list};
	return first;
}

void TakeBack(const void *list, const std::string &freeFunction)
{
	if (list == nullptr)
		return;
	const auto found = handed.find(list);
	if (found == handed.end() || found->second.freeFunction != freeFunction)
		ADD_FAILURE() << freeFunction << " frees what it is not for, or what is freed already";
	else
		handed.erase(found);
}

struct VolumeList {
	explicit VolumeList(const std::vector<kit::FakeVolume> &said) : volumes(said)
	{
		for (const kit::FakeVolume &volume : volumes)
			records.push_back({volume.type, "", volume.path.c_str(), "", nullptr});
		Chain(records);
	}
	const std::vector<kit::FakeVolume> volumes;
	std::vector<ZEVOMOUNTVOL> records;
};

struct SpaceList {
	explicit SpaceList(const std::vector<kit::FakeVolume> &said) : volumes(said)
	{
		for (const kit::FakeVolume &volume : volumes)
			if (volume.hasSpace)
				records.push_back({volume.device.c_str(), volume.altDevice.c_str(), volume.path.c_str(),
				                   volume.uuid.c_str(), nullptr});
		Chain(records);
	}
	const std::vector<kit::FakeVolume> volumes;
	std::vector<ZEVOSPACEINFO> records;
};

struct DiskList {
	DiskList(const std::vector<kit::FakeDisk> &said, unsigned types) : disks(said)
	{
		for (const kit::FakeDisk &disk : disks)
			if ((disk.type & types) != 0)
				records.push_back({disk.kernelName ? disk.kernelName->c_str() : nullptr,
				                   disk.device.c_str(), disk.type, nullptr});
		Chain(records);
	}
	const std::vector<kit::FakeDisk> disks;
	std::vector<DISKINFO> records;
};

struct ArrayList {
	explicit ArrayList(const std::vector<kit::FakeArray> &said)
		: arrays(said), members(arrays.size()), infos(arrays.size())
	{
		for (size_t i = 0; i < arrays.size(); ++i) {
			for (const std::string &member : arrays[i].members)
				members[i].push_back({member.c_str(), nullptr});
			Chain(members[i]);
			infos[i] = {arrays[i].disks, arrays[i].levels, members[i].empty() ? nullptr : members[i].data(),
			            "", ""};
			records.push_back({arrays[i].hasRecord ? &infos[i] : nullptr, nullptr});
		}
		Chain(records);
	}
	const std::vector<kit::FakeArray> arrays;
	std::vector<std::vector<RAIDMEMBER>> members;
	std::vector<RAIDINFO> infos;
	std::vector<RAIDLIST> records;
};

struct CacheList {
	explicit CacheList(const kit::FakeCache &said) : cache(said)
	{
		const auto text = [](const std::optional<std::string> &word) { return word ? word->c_str() : nullptr; };
		records.push_back({cache.mode, text(cache.id), text(cache.reference), cache.size});
	}
	const kit::FakeCache cache;
	std::vector<ZEVOFLASHCACHECONFIG> records;
};

const kit::FakeVolume *FindVolume(const char *szPath)
{
	const auto found = std::find_if(fake->volumes.begin(), fake->volumes.end(),
	                                [&](const kit::FakeVolume &volume) { return volume.path == szPath; });
	return found == fake->volumes.end() ? nullptr : &*found;
}

template <class... Words>
void Called(const Words &...words)
{
	std::ostringstream line;
	const char *separator = "";
	((line << separator << words, separator = " "), ...);
	fake->calls.push_back(line.str());
	kit::Timeline::Note(line.str());
}

std::string WithPid(const ZEVOSPACEBUILD &build)
{
	return build.iPid == getpid() ? "self" : std::to_string(build.iPid);
}

std::string PairsOf(const VUNKSZHASH *hash)
{
	const kit::Uncounted uncounted;
	std::string words;
	VUNKSZLIST *keys = VUNKCSzListAlloc(64);
	if (hash != nullptr)
		VUNKCSzHashEnumKey(hash, &keys);
	for (int i = 0; i < keys->nItem; ++i) {
		const char *const key = VUNKCSzListGet(keys, i);
		words = words + " " + key + "=" + VUNKCSzHashGetValue(hash, key);
	}
	VUNKCSzListFree(keys);
	return words;
}

std::string Hex(unsigned value)
{
	char text[16];
	snprintf(text, sizeof(text), "0x%x", value);
	return text;
}

} // namespace

#define REAL(function) kit::Real<decltype(function)>(#function)

// Leaves the function when its turn to fail has come.
#define FAIL_IN_TURN(failure, function)                            \
	do {                                                       \
		if (kit::Strikes(kit::Calls::Platform, #function)) \
			return Failing(failure);                   \
	} while (false)

extern "C" {

ZEVOMOUNTVOL *ZEVOMountVolInfoEnum(int iFsType, int iFlags)
{
	FAIL_IN_TURN(static_cast<ZEVOMOUNTVOL *>(nullptr), ZEVOMountVolInfoEnum);
	if (fake == nullptr)
		return REAL(ZEVOMountVolInfoEnum)(iFsType, iFlags);
	Called("ZEVOMountVolInfoEnum", iFsType, iFlags);
	if (fake->codeOfVolumes)
		VUNKCErrSetEx(*fake->codeOfVolumes, *fake->codeOfVolumes != 0 ? "volumes" : "", 0);
	return HandOut(std::make_shared<VolumeList>(fake->volumes), "ZEVOMountVolInfoFree");
}

void ZEVOMountVolInfoFree(ZEVOMOUNTVOL *pList)
{
	if (fake == nullptr)
		return REAL(ZEVOMountVolInfoFree)(pList);
	TakeBack(pList, "ZEVOMountVolInfoFree");
}

int ZEVOSpaceInfoEnum(int iKind, ZEVOSPACEINFO **ppList)
{
	FAIL_IN_TURN(-1, ZEVOSpaceInfoEnum);
	if (fake == nullptr)
		return REAL(ZEVOSpaceInfoEnum)(iKind, ppList);
	Called("ZEVOSpaceInfoEnum", iKind);
	*ppList = HandOut(std::make_shared<SpaceList>(fake->volumes), "ZEVOSpaceInfoFree");
	return 0;
}

int ZEVOSpaceInfoSearch(ZEVOSPACEINFO *pList, const ZEVOSPACESEARCH *pSearch, ZEVOSPACEINFO **ppSpace)
{
	FAIL_IN_TURN(-1, ZEVOSpaceInfoSearch);
	if (fake != nullptr)
		Called("ZEVOSpaceInfoSearch", pSearch->szVolPath);
	return REAL(ZEVOSpaceInfoSearch)(pList, pSearch, ppSpace);
}

void ZEVOSpaceInfoFree(ZEVOSPACEINFO *pList)
{
	if (fake == nullptr)
		return REAL(ZEVOSpaceInfoFree)(pList);
	TakeBack(pList, "ZEVOSpaceInfoFree");
}

int ZEVOSpaceDiskEnum(const ZEVOSPACEINFO *pSpace, VUNKSZLIST **ppslDisks)
{
	FAIL_IN_TURN(-1, ZEVOSpaceDiskEnum);
	if (fake == nullptr)
		return REAL(ZEVOSpaceDiskEnum)(pSpace, ppslDisks);
	Called("ZEVOSpaceDiskEnum", pSpace->szVolPath);
	const kit::FakeVolume *const volume = FindVolume(pSpace->szVolPath);
	if (volume == nullptr)
		return Failing(-1);
	for (const std::string &disk : volume->disks)
		if (VUNKCSzListPush(ppslDisks, disk.c_str()) < 0)
			return -1;
	return static_cast<int>(volume->disks.size());
}

int ZEVODiskIsSSD(const char *szDisk)
{
	FAIL_IN_TURN(-1, ZEVODiskIsSSD);
	if (fake == nullptr)
		return REAL(ZEVODiskIsSSD)(szDisk);
	Called("ZEVODiskIsSSD", szDisk);
	const auto answer = fake->isSSD.find(szDisk);
	return answer == fake->isSSD.end() || answer->second == -1 ? Failing(-1) : answer->second;
}

int ZEVOFSGetBTRFSUuid(const char *szPath, char *szUuid, size_t cbUuid)
{
	FAIL_IN_TURN(-1, ZEVOFSGetBTRFSUuid);
	if (fake == nullptr && kit::btrfsPaths == nullptr)
		return REAL(ZEVOFSGetBTRFSUuid)(szPath, szUuid, cbUuid);
	if (fake == nullptr) {
		const auto found = kit::btrfsPaths->find(szPath);
		if (found == kit::btrfsPaths->end()) {
			VUNKCErrSetEx(VUNKC_ERR_FILE_MISSING, szPath, 0);
			return -1;
		}
		snprintf(szUuid, cbUuid, "%s", found->second.c_str());
		return 0;
	}
	Called("ZEVOFSGetBTRFSUuid", szPath, cbUuid);
	const kit::FakeVolume *const volume = FindVolume(szPath);
	if (volume == nullptr)
		return Failing(-1);
	snprintf(szUuid, cbUuid, "%s", volume->uuid.c_str());
	return 0;
}

int ZEVOGetFSType(const char *szPath, int iFlags)
{
	FAIL_IN_TURN(-1, ZEVOGetFSType);
	if (fake == nullptr)
		return REAL(ZEVOGetFSType)(szPath, iFlags);
	Called("ZEVOGetFSType", szPath, iFlags);
	const kit::FakeVolume *const volume = FindVolume(szPath);
	return volume == nullptr ? Failing(-1) : volume->type;
}

int DiskInfoEnum(const DISKFILTER *pFilter, DISKINFO **ppList)
{
	FAIL_IN_TURN(-1, DiskInfoEnum);
	if (fake == nullptr)
		return REAL(DiskInfoEnum)(pFilter, ppList);
	Called("DiskInfoEnum", Hex(pFilter->uTypeMask));
	const auto list = std::make_shared<DiskList>(fake->disks, pFilter->uTypeMask);
	*ppList = HandOut(list, "DiskInfoEnumFree");
	return static_cast<int>(list->records.size());
}

void DiskInfoEnumFree(DISKINFO *pList)
{
	if (fake == nullptr)
		return REAL(DiskInfoEnumFree)(pList);
	TakeBack(pList, "DiskInfoEnumFree");
}

int DiskPartitionNumRemove(const char *szDev, char *szOut, size_t cbOut)
{
	FAIL_IN_TURN(-1, DiskPartitionNumRemove);
	if (fake != nullptr) {
		Called("DiskPartitionNumRemove", szDev, cbOut);
		const auto answer = fake->wholeDisks.find(szDev);
		if (answer != fake->wholeDisks.end()) {
			memcpy(szOut, answer->second.c_str(), std::min(answer->second.size() + 1, cbOut));
			szOut[cbOut - 1] = '\0';
			return 0;
		}
	}
	return REAL(DiskPartitionNumRemove)(szDev, szOut, cbOut);
}

int RAIDInfoEnum(RAIDLIST **ppList)
{
	FAIL_IN_TURN(-1, RAIDInfoEnum);
	if (fake == nullptr)
		return REAL(RAIDInfoEnum)(ppList);
	Called("RAIDInfoEnum");
	*ppList = HandOut(std::make_shared<ArrayList>(fake->arrays), "RAIDListFree");
	return static_cast<int>(fake->arrays.size());
}

void RAIDListFree(RAIDLIST *pList)
{
	if (fake == nullptr)
		return REAL(RAIDListFree)(pList);
	TakeBack(pList, "RAIDListFree");
}

int ZEVOVolumeConfGet(const char *szVolPath, ZEVOVOLUMECONF *pConf)
{
	FAIL_IN_TURN(-1, ZEVOVolumeConfGet);
	if (fake == nullptr)
		return REAL(ZEVOVolumeConfGet)(szVolPath, pConf);
	Called("ZEVOVolumeConfGet", szVolPath);
	const auto found = fake->volumeConf.find(szVolPath);
	const int error = found == fake->volumeConf.end() ? int{ZEVO_ERR_NO_VOLUME_CONF} : found->second.error;
	if (error != 0)
		return FailingWith(error);
	pConf->uMetadataCache = found->second.metadataCache;
	return 0;
}

int ZEVOVolumeConfSet(const char *szVolPath, const ZEVOVOLUMECONF *pConf, int iFields)
{
	FAIL_IN_TURN(-1, ZEVOVolumeConfSet);
	if (fake == nullptr)
		return REAL(ZEVOVolumeConfSet)(szVolPath, pConf, iFields);
	Called("ZEVOVolumeConfSet", szVolPath, "metadata_cache=" + std::to_string(pConf->uMetadataCache),
	       Hex(static_cast<unsigned>(iFields)));
	kit::FakeVolumeConf &conf = fake->volumeConf[szVolPath];
	if (conf.errorOfSet != 0)
		return FailingWith(conf.errorOfSet);
	conf.metadataCache = pConf->uMetadataCache;
	return 0;
}

int ZEVOFlashCacheConfigTmpGet(const ZEVOSPACEINFO *pSpace, int iKind, ZEVOFLASHCACHECONFIG **ppConfig)
{
	FAIL_IN_TURN(-1, ZEVOFlashCacheConfigTmpGet);
	if (fake == nullptr)
		return REAL(ZEVOFlashCacheConfigTmpGet)(pSpace, iKind, ppConfig);
	Called("ZEVOFlashCacheConfigTmpGet", pSpace->szVolPath, iKind);
	const auto found = fake->caches.find(pSpace->szVolPath);
	if (found == fake->caches.end() || found->second.answer == 0)
		return 0;
	if (found->second.answer < 0)
		return Failing(-1);
	*ppConfig = HandOut(std::make_shared<CacheList>(found->second), "ZEVOFlashCacheConfigFree");
	return found->second.answer;
}

void ZEVOFlashCacheConfigFree(ZEVOFLASHCACHECONFIG *pConfig)
{
	if (fake == nullptr)
		return REAL(ZEVOFlashCacheConfigFree)(pConfig);
	TakeBack(pConfig, "ZEVOFlashCacheConfigFree");
}

int ZEVOFlashCacheSupportFlagsGet(const ZEVOFLASHCACHECONFIG *pConfig, unsigned int *puFlags)
{
	FAIL_IN_TURN(-1, ZEVOFlashCacheSupportFlagsGet);
	if (fake == nullptr)
		return REAL(ZEVOFlashCacheSupportFlagsGet)(pConfig, puFlags);
	Called("ZEVOFlashCacheSupportFlagsGet");
	const auto found = handed.find(pConfig);
	if (found == handed.end() || found->second.freeFunction != "ZEVOFlashCacheConfigFree") {
		ADD_FAILURE() << "the flags of what is no cache";
		return Failing(-1);
	}
	const kit::FakeCache &cache = static_cast<const CacheList *>(found->second.memory.get())->cache;
	if (cache.answerOfFlags < 0)
		return Failing(-1);
	*puFlags = cache.flags;
	return 0;
}

int ZEVOFlashCachePinIsVolumeSupport(const char *szVolPath)
{
	FAIL_IN_TURN(-1, ZEVOFlashCachePinIsVolumeSupport);
	if (fake == nullptr)
		return REAL(ZEVOFlashCachePinIsVolumeSupport)(szVolPath);
	Called("ZEVOFlashCachePinIsVolumeSupport", szVolPath);
	const kit::FakeVolume *const volume = FindVolume(szVolPath);
	if (volume == nullptr || !volume->hasSpace)
		return FailingWith(ZEVO_ERR_NO_DEVICE);
	const auto found = fake->caches.find(szVolPath);
	if (found == fake->caches.end() || found->second.answer == 0 ||
	    found->second.mode == ZEVO_FLASH_CACHE_MODE_REMOVED)
		return 0;
	if (found->second.answer < 0)
		return Failing(-1);
	return (found->second.flags & 0x6) == 0x6 ? 1 : 0;
}

int ModelSupportPin()
{
	// It sets no error, and a model that cannot be read is one with pins.
	if (kit::Strikes(kit::Calls::Platform, "ModelSupportPin"))
		return 1;
	if (fake == nullptr)
		return REAL(ModelSupportPin)();
	Called("ModelSupportPin");
	return fake->supportsPin ? 1 : 0;
}

int ZEVOVSpaceLayerPathGet(int iKind, const char *szVolPath, char *szOut, size_t cbOut)
{
	FAIL_IN_TURN(-1, ZEVOVSpaceLayerPathGet);
	if (fake == nullptr)
		return REAL(ZEVOVSpaceLayerPathGet)(iKind, szVolPath, szOut, cbOut);
	Called("ZEVOVSpaceLayerPathGet", iKind, szVolPath, cbOut);
	const auto found = fake->layers.find(szVolPath);
	if (found == fake->layers.end())
		return FailingWith(ZEVO_ERR_NO_LAYER);
	snprintf(szOut, cbOut, "%s", found->second.c_str());
	return 0;
}

int ZEVOSpaceBuildFileSet(const ZEVOSPACEBUILD *pBuild)
{
	FAIL_IN_TURN(-1, ZEVOSpaceBuildFileSet);
	if (fake == nullptr)
		return REAL(ZEVOSpaceBuildFileSet)(pBuild);
	Called("ZEVOSpaceBuildFileSet", WithPid(*pBuild), pBuild->iKind, pBuild->iStage, pBuild->iReason,
	       pBuild->szReference);
	return 0;
}

int ZEVOSpaceBuildFileRemove(const ZEVOSPACEBUILD *pBuild)
{
	FAIL_IN_TURN(-1, ZEVOSpaceBuildFileRemove);
	if (fake == nullptr)
		return REAL(ZEVOSpaceBuildFileRemove)(pBuild);
	Called("ZEVOSpaceBuildFileRemove", WithPid(*pBuild), pBuild->iKind, pBuild->iStage, pBuild->iReason,
	       pBuild->szReference);
	return 0;
}

int ZEVOSysNotifySendNotifiction(const char *szTag, const VUNKSZHASH *psh)
{
	FAIL_IN_TURN(-1, ZEVOSysNotifySendNotifiction);
	if (fake == nullptr)
		return REAL(ZEVOSysNotifySendNotifiction)(szTag, psh);
	Called("ZEVOSysNotifySendNotifiction", szTag + PairsOf(psh));
	return 0;
}

int ZEVOLogSet1(int iKind, int iLevel, int iEvent, ...)
{
	FAIL_IN_TURN(-1, ZEVOLogSet1);
	std::array<const char *, 9> texts = {};
	va_list arguments;
	va_start(arguments, iEvent);
	for (const char *&text : texts)
		if (text = va_arg(arguments, const char *); text == nullptr)
			break;
	va_end(arguments);
	if (fake == nullptr)
		return REAL(ZEVOLogSet1)(iKind, iLevel, iEvent, texts[0], texts[1], texts[2], texts[3], texts[4],
		                         texts[5], texts[6], texts[7], texts[8], static_cast<char *>(nullptr));
	std::string words;
	for (const char *const text : texts)
		if (text != nullptr)
			words.append(" ").append(text);
	Called("ZEVOLogSet1", iKind, iLevel, Hex(static_cast<unsigned>(iEvent)) + words);
	return 0;
}

int VUNKCSupportRAID()
{
	// It sets no error, and a model that cannot be read is one without.
	if (kit::Strikes(kit::Calls::Platform, "VUNKCSupportRAID"))
		return 0;
	if (fake == nullptr)
		return REAL(VUNKCSupportRAID)();
	Called("VUNKCSupportRAID");
	return fake->supportsRaid ? 1 : 0;
}

int VUNKCStrTok(const char *szText, const char *szDelims, VUNKSZLIST **ppslTokens)
{
	FAIL_IN_TURN(-1, VUNKCStrTok);
	return REAL(VUNKCStrTok)(szText, szDelims, ppslTokens);
}

int VUNKCFileExist(const char *szPath)
{
	if (kit::Strikes(kit::Calls::Platform, "VUNKCFileExist"))
		return 0;
	return REAL(VUNKCFileExist)(szPath);
}

int get_nprocs() noexcept
{
	return fake != nullptr ? fake->processors : REAL(get_nprocs)();
}

} // extern "C"

namespace kit {

FakeStorage::FakeStorage()
{
	if (fake != nullptr)
		throw std::logic_error("one at a time");
	fake = this;
}

FakeStorage::~FakeStorage()
{
	fake = nullptr;
	for (const auto &[list, what] : handed)
		ADD_FAILURE() << what.freeFunction << " was not called for a list";
	handed.clear();
}

} // namespace kit
