// The committed corpus of malformed programs (tests/verifier_corpus/*.txt): the
// verifier must refuse each one with exactly the problems the file expects.
//
// File format, one statement per line ('#' starts a comment line):
//   stream N                                  m_StreamDimensions (default 16)
//   slots N                                   slot count given to the verifier (default: highest slot + 1)
//   reg BANK SLOT TYPE ELEMENTS [null|misaligned] [= w0, w1, ...]
//                                             storage for ELEMENTS elements (none with 'null';
//                                             16 bytes off a 32-byte boundary with 'misaligned'),
//                                             its first words set to w0, w1, ... (decimal or 0x)
//   code XX XX ...                            bytecode in hex; code lines are concatenated
//   expect OFFSET CODE: MESSAGE               one per problem, in the order they are reported

#include "cbvm_register_storage.h"
#include "cbvm_verifier.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{
	using namespace Orvex;

	struct SRegisterDecl
	{
		CVMRegID m_Id;
		u32 m_Elements = 0;
		bool m_Null = false;
		bool m_Misaligned = false;
		std::vector<u32> m_Words;
	};

	struct SCase
	{
		std::string m_Name;
		u32 m_Stream = 16;
		u32 m_Slots = 0;	// 0: highest slot + 1
		std::vector<SRegisterDecl> m_Registers;
		std::vector<u8> m_Code;
		std::vector<std::string> m_Expected;	// "OFFSET CODE: MESSAGE"
	};

	bool FindType(const std::string &name, EBaseTypeID &type)
	{
		for (s32 t = BaseType_Evolved; t < __MaxBaseTypes; ++t)
			if (name == BaseTypeName(EBaseTypeID(t)))
			{
				type = EBaseTypeID(t);
				return true;
			}
		return false;
	}

	bool FindBank(const std::string &name, Compiler::EMetaType &bank)
	{
		for (u32 b = Compiler::MetaType_Constant; b <= Compiler::MetaType_Stream; ++b)
			if (name == Compiler::MetaTypeName(Compiler::EMetaType(b)))
			{
				bank = Compiler::EMetaType(b);
				return true;
			}
		return false;
	}

	// Parses one corpus file; a malformed file fails the test with its line.
	SCase Load(const std::string &path, const std::string &name)
	{
		SCase c;
		c.m_Name = name;
		std::ifstream in(path);
		std::string line;
		for (u32 number = 1; std::getline(in, line); ++number)
		{
			std::istringstream words(line);
			std::string keyword;
			if (!(words >> keyword) || keyword[0] == '#')
				continue;
			const std::string where = name + ":" + std::to_string(number);
			if (keyword == "stream")
				words >> c.m_Stream;
			else if (keyword == "slots")
				words >> c.m_Slots;
			else if (keyword == "code")
			{
				for (std::string byte; words >> byte;)
					c.m_Code.push_back(u8(std::stoul(byte, nullptr, 16)));
			}
			else if (keyword == "expect")
			{
				std::string rest;
				std::getline(words, rest);
				c.m_Expected.push_back(rest.substr(rest.find_first_not_of(' ')));
			}
			else if (keyword == "reg")
			{
				std::string bankName, typeName, option;
				u32 slot = 0;
				SRegisterDecl decl;
				Compiler::EMetaType bank = Compiler::MetaType_Transparent;
				EBaseTypeID type = BaseType_Void;
				words >> bankName >> slot >> typeName >> decl.m_Elements;
				EXPECT_TRUE(FindBank(bankName, bank) && FindType(typeName, type)) << where << ": " << line;
				decl.m_Id = CVMRegID::Build(slot, bank, type);
				while (words >> option && option != "=")
				{
					decl.m_Null = decl.m_Null || option == "null";
					decl.m_Misaligned = decl.m_Misaligned || option == "misaligned";
				}
				for (std::string word; std::getline(words, word, ',');)
					decl.m_Words.push_back(u32(std::stoul(word, nullptr, 0)));
				c.m_Registers.push_back(decl);
			}
			else
				ADD_FAILURE() << where << ": unknown statement '" << keyword << "'";
		}
		return c;
	}

	std::vector<std::string> CorpusFiles()
	{
		std::vector<std::string> names;
		if (DIR *dir = opendir(OX_VERIFIER_CORPUS_DIR))
		{
			while (const dirent *entry = readdir(dir))
			{
				const std::string name = entry->d_name;
				if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0)
					names.push_back(name);
			}
			closedir(dir);
		}
		std::sort(names.begin(), names.end());
		return names;
	}

	// Verifies one case against a register file built from its declarations; returns
	// the problems as "OFFSET CODE: MESSAGE" lines.
	std::vector<std::string> VerifyCase(const SCase &c, CBVM::SVerifyResult &result)
	{
		u32 slots = c.m_Slots;
		for (const SRegisterDecl &decl : c.m_Registers)
			slots = std::max(slots, decl.m_Id.ToSlot() + 1);
		CRegisterStorage storage(slots);
		storage.Registers().m_StreamDimensions = c.m_Stream;
		std::vector<CCBCPUMetaRegisters::SRegister *> skewed;
		for (const SRegisterDecl &decl : c.m_Registers)
		{
			if (decl.m_Null)
				continue;
			const u32 bytes = decl.m_Elements * CCBCPUMetaRegisters::DataSizeInBytes(decl.m_Id.ToType());
			EXPECT_TRUE(storage.Allocate(decl.m_Id, bytes + (decl.m_Misaligned ? 16 : 0)));
			std::copy(decl.m_Words.begin(), decl.m_Words.end(), storage.DataAs<u32>(decl.m_Id));
			if (decl.m_Misaligned)
			{
				CCBCPUMetaRegisters::SRegister &entry = storage.Registers().SelectRegister(decl.m_Id);
				entry = {static_cast<u8 *>(entry.m_RawData) + 16, bytes};
				skewed.push_back(&entry);
			}
		}
		CBVM::SVerifyProblem problems[16];
		result = CBVM::CVerifier::Verify(c.m_Code.data(), u32(c.m_Code.size()), storage, problems, 16);
		// Give the storage its own pointers back before it frees them.
		for (CCBCPUMetaRegisters::SRegister *entry : skewed)
			entry->m_RawData = static_cast<u8 *>(entry->m_RawData) - 16;

		std::vector<std::string> lines;
		for (u32 i = 0; i < result.Problems() && i < 16; ++i)
		{
			EXPECT_EQ(problems[i].m_Severity, CBVM::VerifySeverity_Error) << c.m_Name << ": " << problems[i].m_Message;
			lines.push_back(std::to_string(problems[i].m_Offset) + " " + CBVM::VerifyErrorName(problems[i].m_Code) + ": " + problems[i].m_Message);
		}
		return lines;
	}

	TEST(VerifierCorpus, EveryMalformedProgramIsRefusedWithItsExpectedMessages)
	{
		const std::vector<std::string> files = CorpusFiles();
		ASSERT_GE(files.size(), 25u) << "corpus not found in " OX_VERIFIER_CORPUS_DIR;
		std::set<std::string> codesSeen;
		for (const std::string &file : files)
		{
			const SCase c = Load(std::string(OX_VERIFIER_CORPUS_DIR) + "/" + file, file);
			ASSERT_FALSE(c.m_Code.empty()) << file;
			ASSERT_FALSE(c.m_Expected.empty()) << file << ": no expected problem";
			CBVM::SVerifyResult result;
			const std::vector<std::string> got = VerifyCase(c, result);
			EXPECT_FALSE(result.Accepted()) << file;
			EXPECT_EQ(got, c.m_Expected) << file;
			for (const std::string &line : got)
				codesSeen.insert(line.substr(line.find(' ') + 1, line.find(':') - line.find(' ') - 1));
		}
		// Every kind of error has at least one program in the corpus.
		for (u32 code = CBVM::VerifyError_UnknownOpcode; code < CBVM::__MaxVerifyErrors; ++code)
		{
			if (code == CBVM::VerifyError_ShiftCountUnchecked)	// a warning, tested in test_verifier.cpp
				continue;
			EXPECT_EQ(codesSeen.count(CBVM::VerifyErrorName(CBVM::EVerifyError(code))), 1u) << "no corpus program for: " << CBVM::VerifyErrorName(CBVM::EVerifyError(code));
		}
	}
}
