// A program or library as it lies in memory, loaded by the system.
#pragma once

#include <cstdint>
#include <windows.h>

namespace qor::record {

class loaded_image {
public:
    explicit loaded_image(const void* base) noexcept
        : m_base(static_cast<const char*>(base)),
          m_headers(reinterpret_cast<const IMAGE_NT_HEADERS64*>(
              m_base + reinterpret_cast<const IMAGE_DOS_HEADER*>(m_base)->e_lfanew)) {}

    template <class Type>
    Type* at(std::uint32_t address) const noexcept {
        return reinterpret_cast<Type*>(const_cast<char*>(m_base) + address);
    }

    const void* base() const noexcept { return m_base; }
    std::uint32_t size() const noexcept { return m_headers->OptionalHeader.SizeOfImage; }
    std::uintptr_t begin() const noexcept { return reinterpret_cast<std::uintptr_t>(m_base); }
    std::uintptr_t end() const noexcept { return begin() + size(); }
    IMAGE_DATA_DIRECTORY directory(unsigned number) const noexcept {
        return number < m_headers->OptionalHeader.NumberOfRvaAndSizes ? m_headers->OptionalHeader.DataDirectory[number]
                                                                      : IMAGE_DATA_DIRECTORY{};
    }

    // The entry of an exported function in the table of addresses; null: it exports none of this name, or hands it on
    // to another library.
    DWORD* find_export(const char* name) const noexcept {
        const IMAGE_DATA_DIRECTORY place = directory(IMAGE_DIRECTORY_ENTRY_EXPORT);
        if (place.Size == 0)
            return nullptr;
        const auto* const exports = at<const IMAGE_EXPORT_DIRECTORY>(place.VirtualAddress);
        const auto* const names = at<const DWORD>(exports->AddressOfNames);
        const auto* const ordinals = at<const WORD>(exports->AddressOfNameOrdinals);
        for (std::uint32_t begin = 0, end = exports->NumberOfNames; begin < end;) {
            const std::uint32_t middle = begin + (end - begin) / 2;
            const int order = compare(at<const char>(names[middle]), name);
            if (order == 0) {
                DWORD* const entry = at<DWORD>(exports->AddressOfFunctions) + ordinals[middle];
                return *entry - place.VirtualAddress < place.Size ? nullptr : entry;
            }
            (order < 0 ? begin : end) = order < 0 ? middle + 1 : middle;
        }
        return nullptr;
    }

    // Where the function ends that begins there; 0: it is unknown.
    std::uint32_t end_of_function(std::uint32_t address) const noexcept {
        const IMAGE_DATA_DIRECTORY place = directory(IMAGE_DIRECTORY_ENTRY_EXCEPTION);
        const auto* const functions = at<const RUNTIME_FUNCTION>(place.VirtualAddress);
        for (std::uint32_t begin = 0, end = place.Size / sizeof *functions; begin < end;) {
            const std::uint32_t middle = begin + (end - begin) / 2;
            if (functions[middle].BeginAddress == address)
                return functions[middle].EndAddress;
            (functions[middle].BeginAddress < address ? begin : end) =
                functions[middle].BeginAddress < address ? middle + 1 : middle;
        }
        return 0;
    }

    static int compare(const char* one, const char* other) noexcept {
        while (*one != '\0' && *one == *other) {
            ++one;
            ++other;
        }
        return static_cast<unsigned char>(*one) - static_cast<unsigned char>(*other);
    }

private:
    const char* m_base;
    const IMAGE_NT_HEADERS64* m_headers;
};

} // namespace qor::record
