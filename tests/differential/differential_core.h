#pragma once
// The differential check shared by ox_differential (tests/differential_main.cpp) and
// the fuzz target fuzz_differential: one math-op instruction, run on the standard path
// and on the Low path from identical register files, every destination word compared
// with the plain scalar model (tests/support/scalar_model.h). The two programs differ in where
// the instruction and the register values come from (a seeded generator, the fuzz
// input); the fuzz target also holds the verifier's verdict against m_Refusal.
//
// The Low path must give the model's words and report nothing. The standard path may
// differ from the model only where it trades exactness for speed, by design
// (cbvm_path_difference.h):
//   - float modulo by a constant divisor (a reciprocal multiply: frac(a * (1/c)) * c);
//   - a uniform integer shift count above 31 on whole 12-integer blocks (0, or the sign
//     fill, instead of count & 31; the assertion "bits <= 31" reports it);
//   - integer division by the uniform constant INT_MIN on whole blocks (INT_MIN / INT_MIN
//     gives -1: the power-of-two test accepts INT_MIN);
//   - float negation of a constant operand (a failed verification: nothing is written);
//   - float modulo with two constant operands (reported, then evaluated per element).
// There it must give the shortcut's result and only the shortcut's reports, and the
// library's own classification (CBVM::StandardPathDifference) must name the same case.
// A word may also be the model's alternative (two-NaN add or mul, ModelAlternative).

#include "cbvm_interpreter.h"
#include "cbvm_kernel_isa.h"
#include "cbvm_path_difference.h"
#include "cbvm_register_storage.h"
#include "cbvm_verifier.h"
#include "cp_ir_details.h"
#include "scalar_model.h"

#include <functional>
#include <string>
#include <vector>

namespace OxDiff
{
	using Orvex::u32;
	using Orvex::u8;
	using EOp = Orvex::Compiler::IR::SOp_MathOp::EOp;
	using Orvex::Compiler::EMetaType;

	// Every register type with a kernel, and the four banks, for the callers' draws.
	constexpr u32 kTypeCount = 13;
	extern const Orvex::EBaseTypeID kTypes[kTypeCount];
	constexpr u32 kBankCount = 4;
	extern const EMetaType kBanks[kBankCount];

	// Instance and stream registers hold one element per stream entry; the others one.
	bool IsStream(EMetaType bank);

	struct SCase
	{
		EOp m_Op;
		Orvex::EBaseTypeID m_Type;
		OxTest::EModelKind m_Kind;
		u32 m_Components;
		EMetaType m_DstBank, m_Src0Bank, m_Src1Bank;
		u32 m_StreamDims;
		bool m_InPlace;	// source 0 is the destination register
		bool m_Unary;
	};

	// The case of 'op' on registers of 'type' (one with a kernel: kTypes). An in-place
	// case reads source 0 from the destination, so its source 0 bank is the destination's.
	SCase MakeCase(EOp op, Orvex::EBaseTypeID type, EMetaType dstBank, EMetaType src0Bank, EMetaType src1Bank, u32 streamDims, bool inPlace);
	// One line: operator, type, banks, stream size.
	std::string Describe(const SCase &c);

	// Destination in slot 0, source 0 in slot 1 (unless in place), source 1 in slot 2
	// (unless the operator is unary).
	struct SRegisterFile
	{
		Orvex::CRegisterStorage m_Storage{3};
		Orvex::CVMRegID m_Dst, m_Src0, m_Src1;

		// The register's whole block, padding included.
		std::vector<u32> Words(Orvex::CVMRegID id) const;
	};

	// The files of one instruction: the same registers and the same values.
	struct SFiles
	{
		SRegisterFile m_Standard, m_Low;
	};

	// Allocates the case's registers in both files (a stream register holds at least
	// one element: a one-element evaluation reads element 0) and fills every word of
	// them, padding included, from 'nextWord': the destination's, then source 0's
	// (unless in place), then source 1's (unless unary).
	void BuildFiles(const SCase &c, const std::function<u32()> &nextWord, SFiles &files);

	// The instruction's bytecode, from the file's register ids.
	std::vector<u8> Encode(const SRegisterFile &file, EOp op);

	// What each path must leave in the destination, from the values before either run.
	struct SExpectation
	{
		std::vector<u32> m_Before;	// the destination's whole block
		u32 m_Written = 0;			// words the instruction evaluates (elements x components)
		std::vector<u32> m_Low, m_LowAlt;			// the model and its alternative, m_Written words
		std::vector<u32> m_Standard, m_StandardAlt;	// the same with the standard path's shortcut applied
		std::vector<std::string> m_AllowedReports;	// on the standard path
		Orvex::CBVM::EPathDifference m_Difference = Orvex::CBVM::PathDifference_None;
		// What the verifier refuses the form for (VerifyError_None: it accepts it).
		Orvex::CBVM::EVerifyError m_Refusal = Orvex::CBVM::VerifyError_None;
	};
	// The operator must exist for the case's kind (OxTest::ModelSupports).
	SExpectation Expect(const SCase &c, const SRegisterFile &file);

	struct SRun
	{
		std::vector<u32> m_Dst;	// the destination's whole block after the run
		std::vector<std::string> m_Reports;
		Orvex::CBVM::SRunResult m_Result;
	};
	// Runs the bytecode over the file, with a handler that records every assertion report
	// made meanwhile and answers "continue", so that no reporting site is silenced for
	// the next instruction. The previous handler is back on return.
	SRun Execute(SRegisterFile &file, const std::vector<u8> &bytecode, Orvex::CBVM::EExecPath path);

	struct SMismatch
	{
		std::string m_What;		// "classification", "standard run", "low path report", "value", ...
		std::string m_Detail;
	};

	struct SOutcome
	{
		SExpectation m_Expected;
		std::vector<SMismatch> m_Mismatches;	// empty: both paths did what they must
		u32 m_WordsCompared = 0;				// destination words, both paths counted
	};
	// Classifies the instruction, runs it on both files and compares everything with the
	// expectation: classification, run status, reports, then every destination word
	// (the words past the evaluated ones must be left as they were).
	SOutcome Check(const SCase &c, SFiles &files, const std::vector<u8> &bytecode);

	// The wide kernel sets this machine runs (cbvm_kernel_isa.h).
	std::vector<Orvex::CBVM::EKernelIsa> WideKernelSets();

	// Check with the SSE2 kernels, then again with each kernel set of 'sets' from an
	// identical file ('fill' builds one: BuildFiles with the same words): each checked
	// as Check does, and its destination block compared word for word with the SSE2
	// run's. Every mismatch goes into the one outcome, a set's named after it. The
	// active kernel set is left as it was.
	SOutcome CheckEveryKernelSet(const SCase &c, const std::function<void(SFiles &)> &fill, const std::vector<Orvex::CBVM::EKernelIsa> &sets);
}
