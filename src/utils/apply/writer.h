#ifndef UTILS_APPLY_WRITER_H
#define UTILS_APPLY_WRITER_H

struct SectionPlace;

// What the application of a profile does to the machine, and what it tells on its way. The application itself writes
// nothing: whoever stands in for the kernel here can say what would be written.
class ParameterWriter {
public:
	virtual ~ParameterWriter() = default;

	// Each 0 or -1, as the function of the kernel's writer that does it.
	virtual int ApplyProfile(const char *szProfile) = 0; // one that is inherited
	virtual int ApplyGlobalProfiles() = 0;
	virtual int RunSysctl(const char *szSysctl) = 0;
	virtual int WriteParameter(const char *szPath, const char *szValue, unsigned long cbValue) = 0;
	virtual int WriteThreadLimit(const char *szPath, int nThreadMax) = 0;

	// Whether a disk's active scheduler has a tunable, given the tunable's path.
	virtual bool HasTunable(const char *szPath) = 0;

	// What is applied from here on, as it stands in the file.
	virtual void OnSection(const SectionPlace &place) = 0;
	virtual void OnKey(const char *szKey, const char *szValue) = 0;
	// A section, a key or a device that is left alone, and a text that says why.
	virtual void OnPassedOver(const char *szWhat, const char *szWhy) = 0;
};

// The kernel. Notes are for others.
class KernelWriter final : public ParameterWriter {
public:
	int ApplyProfile(const char *szProfile) override;
	int ApplyGlobalProfiles() override;
	int RunSysctl(const char *szSysctl) override;
	int WriteParameter(const char *szPath, const char *szValue, unsigned long cbValue) override;
	int WriteThreadLimit(const char *szPath, int nThreadMax) override;
	bool HasTunable(const char *szPath) override;
	void OnSection(const SectionPlace &) override {}
	void OnKey(const char *, const char *) override {}
	void OnPassedOver(const char *, const char *) override {}
};

#endif
