#ifndef PLATFORM_STORAGE_RECORDS_H
#define PLATFORM_STORAGE_RECORDS_H

#include <memory>
#include <utility>

namespace zevos {

/// A singly linked list of C records while it is made. A Record derives from its C record and owns the texts in it.
template <class CRecord, class Record>
class RecordList {
public:
	RecordList() = default;
	RecordList(const RecordList &) = delete;
	RecordList &operator=(const RecordList &) = delete;
	~RecordList() { Free(head); }

	void Append(std::unique_ptr<Record> record)
	{
		CRecord *const added = record.release();
		if (tail == nullptr)
			head = added;
		else
			tail->pNext = added;
		tail = added;
		++count;
	}
	int Count() const { return count; }
	CRecord *Release() { return std::exchange(head, nullptr); }

	static void Free(CRecord *record)
	{
		while (record != nullptr) {
			CRecord *const next = record->pNext;
			delete static_cast<Record *>(record);
			record = next;
		}
	}

private:
	CRecord *head = nullptr;
	CRecord *tail = nullptr;
	int count = 0;
};

} // namespace zevos

#endif
