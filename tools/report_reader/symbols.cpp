#include "tools/report_reader/symbols.h"

#include <llvm/DebugInfo/PDB/IPDBSession.h>
#include <llvm/DebugInfo/PDB/Native/InfoStream.h>
#include <llvm/DebugInfo/PDB/Native/NativeSession.h>
#include <llvm/DebugInfo/PDB/Native/PDBFile.h>
#include <llvm/DebugInfo/PDB/PDBContext.h>
#include <llvm/DebugInfo/PDB/PDBSymbolFunc.h>
#include <llvm/DebugInfo/PDB/PDBSymbolPublicSymbol.h>
#include <llvm/DebugInfo/PDB/PDBSymbolTypeFunctionSig.h>
#include <llvm/Demangle/Demangle.h>
#include <llvm/Object/COFF.h>
#include <llvm/Support/MemoryBuffer.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace corvo::report_reader {

namespace {

using file_bytes = std::unique_ptr<llvm::MemoryBuffer>;

[[noreturn]] void refuse(const std::filesystem::path& file, const std::string& why) {
    throw std::runtime_error(file.string() + ": " + why);
}

// Read, not mapped: a program that is replaced while it is looked at must not end this one.
file_bytes read(const std::filesystem::path& file) {
    auto bytes = llvm::MemoryBuffer::getFile(file.string(), false, false, true);
    if (!bytes) {
        refuse(file, bytes.getError().message());
    }
    return std::move(*bytes);
}

std::unique_ptr<llvm::object::COFFObjectFile> open_program(const std::filesystem::path& file,
                                                           const llvm::MemoryBuffer& bytes) {
    auto program = llvm::object::COFFObjectFile::create(bytes);
    if (!program) {
        refuse(file, "this is not a Windows program: " + llvm::toString(program.takeError()));
    }
    if ((*program)->getPE32PlusHeader() == nullptr) {
        refuse(file, "this is not a 64-bit Windows program");
    }
    return std::move(*program);
}

// The folder's name in a symbol store: the GUID as people write it without its hyphens, and the age.
std::string pdb_id(const std::uint8_t* guid, std::uint32_t age) {
    static constexpr std::array order{3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    std::string id;
    std::array<char, 12> piece{};
    for (const int index : order) {
        std::snprintf(piece.data(), piece.size(), "%02X", unsigned{guid[index]});
        id += piece.data();
    }
    std::snprintf(piece.data(), piece.size(), "%X", age);
    return id + piece.data();
}

std::unique_ptr<llvm::pdb::IPDBSession> open_pdb(const std::filesystem::path& file) {
    static constexpr std::string_view magic("Microsoft C/C++ MSF 7.00\r\n\x1A"
                                            "DS\0\0\0",
                                            32);
    file_bytes bytes = read(file);
    if (!std::string_view(bytes->getBufferStart(), bytes->getBufferSize()).starts_with(magic)) {
        refuse(file, "this is not a PDB");
    }
    std::unique_ptr<llvm::pdb::IPDBSession> session;
    if (llvm::Error error = llvm::pdb::NativeSession::createFromPdb(std::move(bytes), session)) {
        refuse(file, "the PDB cannot be read: " + llvm::toString(std::move(error)));
    }
    return session;
}

std::string id_of(const std::filesystem::path& file, llvm::pdb::IPDBSession& session) {
    auto info = static_cast<llvm::pdb::NativeSession&>(session).getPDBFile().getPDBInfoStream();
    if (!info) {
        refuse(file, "the PDB cannot be read: " + llvm::toString(info.takeError()));
    }
    const llvm::codeview::GUID guid = info->getGuid();
    return pdb_id(guid.Guid, info->getAge());
}

// VS_FIXEDFILEINFO (winver.h), of which a program has one: its signature and structure version, then the file version.
std::string version_in(std::string_view bytes) {
    static constexpr std::string_view signature("\xBD\x04\xEF\xFE\x00\x00\x01\x00", 8);
    const std::size_t at = bytes.find(signature);
    if (at == std::string_view::npos || bytes.size() - at < 16) {
        return {};
    }
    std::array<std::uint16_t, 4> parts{}; // minor, major, revision, build
    std::memcpy(parts.data(), bytes.data() + at + 8, sizeof parts);
    const std::string version =
        std::to_string(parts[1]) + "." + std::to_string(parts[0]) + "." + std::to_string(parts[3]);
    return parts[2] == 0 ? version : version + "." + std::to_string(parts[2]);
}

// A namespace without a name as demangled names have it, and not as procedure records do.
std::string readable(std::string name) {
    static constexpr std::string_view theirs = "`anonymous namespace'";
    for (std::size_t at = 0; (at = name.find(theirs, at)) != std::string::npos;) {
        name.replace(at, theirs.size(), "(anonymous namespace)");
    }
    return name;
}

std::string source_of(const llvm::DILineInfo& line) {
    if (line.FileName.empty() || line.FileName == llvm::DILineInfo::BadString || line.Line == 0) {
        return {};
    }
    return line.FileName + ":" + std::to_string(line.Line);
}

program_identity identify(const llvm::object::COFFObjectFile& program, std::string_view bytes) {
    program_identity identity{
        program.getTimeDateStamp(), program.getPE32PlusHeader()->SizeOfImage, {}, {}, version_in(bytes)};
    const llvm::codeview::DebugInfo* info = nullptr;
    llvm::StringRef name;
    if (llvm::Error error = program.getDebugPDBInfo(info, name)) {
        llvm::consumeError(std::move(error));
    } else if (info != nullptr && info->Signature.CVSignature == llvm::OMF::Signature::PDB70) {
        identity.pdb_name = name.substr(name.find_last_of("/\\") + 1).str();
        identity.pdb_id = pdb_id(info->PDB70.Signature, info->PDB70.Age);
    }
    return identity;
}

std::string_view all_of(const llvm::MemoryBuffer& bytes) {
    return {bytes.getBufferStart(), bytes.getBufferSize()};
}

} // namespace

struct module_symbols::reader {
    file_bytes bytes;
    std::unique_ptr<llvm::object::COFFObjectFile> program;
    std::unique_ptr<llvm::pdb::PDBContext> context;
    llvm::pdb::IPDBSession* session = nullptr; // the context's
};

program_identity identify_program(const std::filesystem::path& program) {
    const file_bytes bytes = read(program);
    return identify(*open_program(program, *bytes), all_of(*bytes));
}

std::string identify_pdb(const std::filesystem::path& pdb) {
    return id_of(pdb, *open_pdb(pdb));
}

module_symbols::module_symbols(const std::filesystem::path& program, const std::filesystem::path& pdb)
    : m_reader(std::make_unique<reader>()) {
    m_reader->bytes = read(program);
    m_reader->program = open_program(program, *m_reader->bytes);
    const program_identity identity = identify(*m_reader->program, all_of(*m_reader->bytes));
    std::unique_ptr<llvm::pdb::IPDBSession> session = open_pdb(pdb);
    const std::string id = id_of(pdb, *session);
    if (id != identity.pdb_id) {
        refuse(pdb, "this PDB is of another build than " + program.string() + ": its identity is " + id +
                        ", and the program asks for " + (identity.pdb_id.empty() ? "none" : identity.pdb_id));
    }
    m_reader->session = session.get();
    // The context sets the address at which the session takes the program to be loaded.
    m_reader->context = std::make_unique<llvm::pdb::PDBContext>(*m_reader->program, std::move(session));
}

module_symbols::~module_symbols() = default;

code_chain module_symbols::find(std::uint64_t offset, bool is_return_address) {
    const std::uint64_t base = m_reader->program->getImageBase();
    const std::uint64_t address = base + offset;
    const std::uint64_t wanted = is_return_address && offset > 0 ? address - 1 : address;
    if (offset >= m_reader->program->getPE32PlusHeader()->SizeOfImage) {
        return {};
    }
    const llvm::DIInliningInfo found = m_reader->context->getInliningInfoForAddress(
        {wanted, llvm::object::SectionedAddress::UndefSection},
        {llvm::DILineInfoSpecifier::FileLineInfoKind::RawValue,
         llvm::DILineInfoSpecifier::FunctionNameKind::LinkageName});
    code_chain chain;
    for (std::uint32_t index = 0; index < found.getNumberOfFrames(); ++index) {
        const llvm::DILineInfo& line = found.getFrame(index);
        chain.push_back({readable(llvm::demangle(line.FunctionName)), 0, source_of(line)});
    }
    if (chain.empty()) {
        return {};
    }
    code_place& whole = chain.back();
    const auto function = m_reader->session->findSymbolByAddress(wanted, llvm::pdb::PDB_SymType::Function);
    const auto name = m_reader->session->findSymbolByAddress(wanted, llvm::pdb::PDB_SymType::PublicSymbol);
    if (const auto* procedure = llvm::dyn_cast_or_null<llvm::pdb::PDBSymbolFunc>(function.get())) {
        whole.function_offset = address - procedure->getVirtualAddress();
    } else if (const auto* symbol = llvm::dyn_cast_or_null<llvm::pdb::PDBSymbolPublicSymbol>(name.get())) {
        // Code without debug information, as in thunks and in assembler, has public names alone.
        whole.function = readable(llvm::demangle(symbol->getName()));
        whole.function_offset = address - symbol->getVirtualAddress();
    } else {
        return {};
    }
    return chain;
}

} // namespace corvo::report_reader
