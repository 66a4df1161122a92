// What the math operator reads past the last element of its operands.
//
// A program may run in batches: elements [begin, end) of every stream, one batch per
// thread, each batch a multiple of 48 elements starting on a 32-byte boundary. Inside a
// batch the bytes after the last element belong to the next batch, which another thread
// may be writing at that moment. So when the evaluated components fill whole 16-byte
// vectors (floats) or whole 12-integer blocks (integers and bools), no kernel may touch
// a single byte past the last element of any stream operand: not even a load whose lanes
// are then thrown away.
//
// Every operand stream here ends right before an inaccessible page, so a read of any
// byte past it faults. The counts are the batch sizes 48, 96 and 480, and 8 (whole
// vectors for every N, not always whole integer blocks: their scalar tail runs too).
// The instruction runs in a child process: a fault ends the child and is reported with
// the operand and the offset it hit, instead of taking the whole test binary down. The
// child also compares the destination with the scalar model (scalar_model.h) and counts
// assertion reports; the parent turns what it recorded into test failures.
//
// A constant operand is one element that no batch splits: it sits 32-byte aligned (what
// the register file guarantees) in the last 32 bytes before an inaccessible page.
//
// Element counts with a real tail (the last batch of a stream) keep their values, with
// each stream laid out the way the register file lays it out (the padding after it, and
// nothing readable past the padding), and nothing written into the destination's padding.
//
// The one-element kernels (a Constant or Normal destination) get the same treatment with
// every operand's element ending right at an inaccessible page. They are called through
// their table: a register's 32-byte alignment cannot put the end of a 4- to 16-byte
// element on a page boundary.

#include "bytecode_builder.h"
#include "cbvm_interpreter.h"
#include "cbvm_math_op_one_element_kernels.h"
#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "cbvm_registers.h"
#include "float_kernel_harness.h"
#include "scalar_model.h"
#include "seeded_random.h"
#include "test_support.h"
#include "type_lists.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <ostream>
#include <new>
#include <string>
#include <vector>

using namespace Orvex;
using Compiler::IR::SOp_MathOp;
using OxTest::EOperandShape;
using OxTest::SKernelType;
using EOp = SOp_MathOp::EOp;

namespace
{
	//------------------------------------------------------------------------------------
	// Memory that ends right before an inaccessible page.

	std::size_t PageSize() { return std::size_t(sysconf(_SC_PAGESIZE)); }

	class CPageEndBlock
	{
	public:
		// At least 'bytes' accessible bytes, then one inaccessible page.
		explicit CPageEndBlock(std::size_t bytes)
		{
			const std::size_t page = PageSize();
			m_Accessible = (bytes + page - 1) / page * page;
			void *mem = mmap(nullptr, m_Accessible + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
			if (mem == MAP_FAILED)
				return;
			u8 *base = static_cast<u8 *>(mem);
			if (mprotect(base + m_Accessible, page, PROT_NONE) != 0)
			{
				munmap(mem, m_Accessible + page);
				return;
			}
			m_Base = base;
		}
		~CPageEndBlock()
		{
			if (m_Base != nullptr)
				munmap(m_Base, m_Accessible + PageSize());
		}
		CPageEndBlock(const CPageEndBlock &) = delete;
		CPageEndBlock &operator=(const CPageEndBlock &) = delete;

		bool Valid() const { return m_Base != nullptr; }
		// The first inaccessible byte.
		u8 *End() const { return m_Base + m_Accessible; }

	private:
		u8 *m_Base = nullptr;
		std::size_t m_Accessible = 0;
	};

	//------------------------------------------------------------------------------------
	// Running something in a child process, with what it records in shared memory.

	enum EOperand
	{
		Operand_Dst,
		Operand_Src0,
		Operand_Src1,
		__MaxOperands
	};

	const char *OperandName(u32 operand)
	{
		static const char *const names[] = {"the destination", "source 0", "source 1"};
		return operand < __MaxOperands ? names[operand] : "?";
	}

	constexpr u32 kMaxStages = 64;
	constexpr int kFaultExitCode = 97;

	struct SStageRecord
	{
		u32 m_Ran;				// the instruction returned and its values were compared
		u32 m_Mismatches;		// result words that differ from the model
		u32 m_Reports;			// assertion reports while it ran
		u32 m_PaddingWritten;	// destination words past the last element that changed
		u32 m_RunStatus;		// the interpreter's status
		char m_FirstMismatch[200];
	};

	struct SChildLog
	{
		volatile u32 m_Stage;			// the stage running (or last run)
		volatile int m_Signal;			// the fault's signal, 0 without one
		volatile std::uintptr_t m_FaultAddress;
		// Where each operand's element bytes end (0: no such operand) in the stage running.
		volatile std::uintptr_t m_OperandEnd[__MaxOperands];
		SStageRecord m_Stages[kMaxStages];
	};

	SChildLog *g_ChildLog = nullptr;

	void OnFault(int signal, siginfo_t *info, void *)
	{
		g_ChildLog->m_Signal = signal;
		g_ChildLog->m_FaultAddress = reinterpret_cast<std::uintptr_t>(info->si_addr);
		_exit(kFaultExitCode);
	}

	// The log of one child, in memory the parent sees after the child is gone.
	class CSharedLog
	{
	public:
		CSharedLog()
		{
			void *mem = mmap(nullptr, sizeof(SChildLog), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
			if (mem != MAP_FAILED)
				m_Log = new (mem) SChildLog();
		}
		~CSharedLog()
		{
			if (m_Log != nullptr)
				munmap(m_Log, sizeof(SChildLog));
		}
		CSharedLog(const CSharedLog &) = delete;
		CSharedLog &operator=(const CSharedLog &) = delete;

		SChildLog *Log() const { return m_Log; }

	private:
		SChildLog *m_Log = nullptr;
	};

	// Runs body(log) in a child process. Returns false, with the reason in 'failure',
	// when the child could not be started or did not end normally; a fault of the body
	// is recorded in the log (m_Signal, m_FaultAddress) and is not a failure here.
	template <typename _Body>
	bool RunInChild(SChildLog &log, const _Body &body, std::string &failure)
	{
		std::fflush(stdout);
		std::fflush(stderr);
		const pid_t pid = fork();
		if (pid < 0)
		{
			failure = "fork failed: " + std::string(std::strerror(errno));
			return false;
		}
		if (pid == 0)
		{
			g_ChildLog = &log;
			struct sigaction action = {};
			action.sa_sigaction = &OnFault;
			action.sa_flags = SA_SIGINFO;
			sigemptyset(&action.sa_mask);
			sigaction(SIGSEGV, &action, nullptr);
			sigaction(SIGBUS, &action, nullptr);
			body(log);
			_exit(0);
		}
		int status = 0;
		if (waitpid(pid, &status, 0) != pid)
		{
			failure = "waitpid failed: " + std::string(std::strerror(errno));
			return false;
		}
		if (WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kFaultExitCode))
			return true;
		failure = WIFSIGNALED(status) ? "the child ended on signal " + std::to_string(WTERMSIG(status)) : "the child exited with status " + std::to_string(WEXITSTATUS(status));
		return false;
	}

	// "faulted (signal 11) 0 bytes past the end of source 0".
	std::string FaultText(const SChildLog &log)
	{
		const std::uintptr_t address = log.m_FaultAddress;
		const std::size_t page = PageSize();
		for (u32 operand = 0; operand < __MaxOperands; ++operand)
		{
			const std::uintptr_t end = log.m_OperandEnd[operand];
			if (end != 0 && address >= end && address < end + page)
				return "faulted (signal " + std::to_string(log.m_Signal) + ") reading or writing " + std::to_string(address - end) + " bytes past the end of " + OperandName(operand);
		}
		char text[96];
		std::snprintf(text, sizeof(text), "faulted (signal %d) at %p, outside every operand's guard page", log.m_Signal, reinterpret_cast<void *>(address));
		return text;
	}

	std::string Hex(u32 v)
	{
		char text[16];
		std::snprintf(text, sizeof(text), "0x%08X", v);
		return text;
	}

	//------------------------------------------------------------------------------------
	// Cases: operator x type x operand shape.

	struct SBoundsCase
	{
		SKernelType m_Type;
		s32 m_Op;
		EOperandShape m_Shape;	// StreamStream for a unary operator: its one operand is a stream
	};

	bool Unary(s32 op) { return OxTest::ModelIsUnary(EOp(op)); }

	void PrintTo(const SBoundsCase &c, std::ostream *os)
	{
		*os << c.m_Type.m_Name << " " << OxTest::OpMnemonic(c.m_Op) << " " << (Unary(c.m_Op) ? "Stream" : OxTest::ShapeName(c.m_Shape));
	}

	std::string CaseName(const ::testing::TestParamInfo<SBoundsCase> &info)
	{
		const SBoundsCase &c = info.param;
		const std::string shape = Unary(c.m_Op) ? "Stream" : OxTest::ShapeName(c.m_Shape);
		return std::string(c.m_Type.m_Name) + "_" + OxTest::OpMnemonic(c.m_Op) + "_" + shape;
	}

	std::vector<SBoundsCase> AllCases()
	{
		std::vector<SBoundsCase> cases;
		for (const SKernelType &type : OxTest::kKernelTypes)
			for (s32 op = 0; op < s32(SOp_MathOp::__MaxOps); ++op)
			{
				if (!OxTest::ModelSupports(type.m_Kind, EOp(op)))
					continue;
				if (Unary(op))
				{
					cases.push_back({type, op, EOperandShape::StreamStream});
					continue;
				}
				for (EOperandShape shape : OxTest::kFastPathShapes)
					cases.push_back({type, op, shape});
			}
		return cases;
	}

	//------------------------------------------------------------------------------------
	// Stages: one instruction each, run in the child one after the other.

	enum class ELayout
	{
		PageEnd,	// every stream's last element ends right before an inaccessible page
		Padded,		// the register file's layout: the padding, then an inaccessible page
	};

	struct SStage
	{
		CBVM::EExecPath m_Path;
		u32 m_Count;
		ELayout m_Layout;
		// The integer constant operand: a value for every component, or kVariedConstant
		// for a value of its own per component.
		s64 m_Constant;
	};

	constexpr s64 kVariedConstant = s64(1) << 40;

	// The constants an integer right operand is tried with: the uniform ones take the
	// block paths of their operator (sign tricks, shifts, the magic-number multiply, the
	// clear of x % +-1). Division leaves INT_MIN out (INT_MIN / INT_MIN is -1 on the block
	// path, by design) and shifts keep their counts below 32 (a larger uniform count
	// shifts everything out on the block path, by design).
	std::vector<s64> IntRightConstants(s32 op)
	{
		switch (op)
		{
		case SOp_MathOp::Op_Div: return {kVariedConstant, 7, -3, 16, -16, 1, -1, 0};
		case SOp_MathOp::Op_Mod: return {kVariedConstant, 7, -3, 16, INT_MIN, 1, -1, 0};
		case SOp_MathOp::Op_Bitwise_ShiftLeft:
		case SOp_MathOp::Op_Bitwise_ShiftRight:
		case SOp_MathOp::Op_Bitwise_ShiftRightLogical: return {kVariedConstant, 0, 5, 31};
		default: return {kVariedConstant, 12345};
		}
	}

	std::vector<SStage> Stages(const SBoundsCase &c, const std::vector<u32> &counts, ELayout layout)
	{
		const bool intRightConstant = c.m_Type.m_Kind == OxTest::EModelKind::Int && c.m_Shape == EOperandShape::StreamConst && !Unary(c.m_Op);
		const std::vector<s64> constants = intRightConstant ? IntRightConstants(c.m_Op) : std::vector<s64>{kVariedConstant};
		std::vector<SStage> stages;
		for (CBVM::EExecPath path : {CBVM::ExecPath_Standard, CBVM::ExecPath_Low})
			for (u32 count : counts)
				for (s64 constant : constants)
					stages.push_back({path, count, layout, constant});
		return stages;
	}

	std::string StageText(const SStage &s)
	{
		std::string text = std::string(CBVM::ExecPathName(s.m_Path)) + " path, " + std::to_string(s.m_Count) + " elements";
		if (s.m_Constant != kVariedConstant)
			text += ", uniform constant " + std::to_string(s.m_Constant);
		return text;
	}

	//------------------------------------------------------------------------------------
	// Values.

	class CWordSource
	{
	public:
		CWordSource(OxTest::EModelKind kind, u32 seed) : m_Kind(kind), m_Floats(seed) {}

		u32 Next()
		{
			if (m_Kind == OxTest::EModelKind::Float)
				return m_Floats.Next();
			static constexpr u32 kIntEdges[] = {0u, 1u, 0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 2u, 0xFFFFFFFEu, 7u, 0xFFFFFFF9u, 31u, 32u, 33u};
			const u32 pick = m_Floats.Uniform(100);
			if (pick < 30)
				return kIntEdges[m_Floats.Uniform(std::size(kIntEdges))];
			if (pick < 60)
				return u32(s32(m_Floats.Uniform(2001)) - 1000);
			return u32(m_Floats.Random()());
		}

	private:
		OxTest::EModelKind m_Kind;
		FloatKernelTest::CValues m_Floats;
	};

	//------------------------------------------------------------------------------------
	// One stage in the child.

	// Register slots: the destination in 0, source 0 in 1, source 1 in 2.
	constexpr u32 kSlots = 3;

	// The page-end blocks of the three operands, made once per child (big enough for
	// every stage) and reused by each stage.
	struct SOperandBlocks
	{
		explicit SOperandBlocks(std::size_t bytes) : m_Block{CPageEndBlock(bytes), CPageEndBlock(bytes), CPageEndBlock(bytes)} {}
		CPageEndBlock m_Block[__MaxOperands];
	};

	// Where one operand sits in its block.
	struct SOperandMemory
	{
		const CPageEndBlock &m_Block;
		u32 *m_Data = nullptr;
		u32 m_Bytes = 0;	// the element bytes (the register's size)

		// A stream's elements, or a constant's one element. On the page-end layout a stream
		// ends right at the inaccessible page and a constant sits 32-byte aligned in the
		// last 32 bytes; on the padded layout both are followed by the register file's
		// padding (CRegisterStorage::CapacityFor) and then the page.
		SOperandMemory(const CPageEndBlock &block, u32 bytes, bool constant, ELayout layout)
		: m_Block(block), m_Bytes(bytes)
		{
			if (!m_Block.Valid())
				return;
			u32 room = bytes;
			if (layout == ELayout::Padded)
				room = CRegisterStorage::CapacityFor(bytes);
			else if (constant)
				room = (bytes + 31u) / 32u * 32u;
			m_Data = reinterpret_cast<u32 *>(m_Block.End() - room);
		}

		u32 Words() const { return m_Bytes / 4; }
		// Words from m_Data up to the inaccessible page.
		u32 WordsToEnd() const { return u32((m_Block.End() - reinterpret_cast<u8 *>(m_Data)) / 4); }
		std::uintptr_t ElementsEnd() const { return reinterpret_cast<std::uintptr_t>(m_Data) + m_Bytes; }
	};

	void SetFirstMismatch(SStageRecord &record, const std::string &text)
	{
		std::snprintf(record.m_FirstMismatch, sizeof(record.m_FirstMismatch), "%s", text.c_str());
	}

	void RunStage(SChildLog &log, u32 index, const SBoundsCase &c, const SStage &s, const SOperandBlocks &blocks, CWordSource &words)
	{
		SStageRecord &record = log.m_Stages[index];
		log.m_Stage = index;
		const u32 n = c.m_Type.m_Components;
		const u32 elementBytes = 4 * n;
		const bool unary = Unary(c.m_Op);
		const bool src0Constant = !unary && c.m_Shape == EOperandShape::ConstStream;
		const bool src1Constant = !unary && c.m_Shape == EOperandShape::StreamConst;
		const u32 streamBytes = s.m_Count * elementBytes;

		SOperandMemory dst(blocks.m_Block[Operand_Dst], streamBytes, false, s.m_Layout);
		SOperandMemory src0(blocks.m_Block[Operand_Src0], src0Constant ? elementBytes : streamBytes, src0Constant, s.m_Layout);
		SOperandMemory src1(blocks.m_Block[Operand_Src1], src1Constant ? elementBytes : streamBytes, src1Constant, s.m_Layout);
		if (dst.m_Data == nullptr || src0.m_Data == nullptr || src1.m_Data == nullptr)
		{
			SetFirstMismatch(record, "no memory for the operands");
			record.m_Mismatches = 1;
			return;
		}

		// Every accessible word gets a value (padding included): the destination's words
		// a guard pattern, the sources' words values of the type.
		for (u32 w = 0; w < dst.WordsToEnd(); ++w)
			dst.m_Data[w] = OxTest::GuardWord(w, 0x5Au);
		for (u32 w = 0; w < src0.WordsToEnd(); ++w)
			src0.m_Data[w] = words.Next();
		for (u32 w = 0; w < src1.WordsToEnd(); ++w)
			src1.m_Data[w] = words.Next();
		if (src1Constant && s.m_Constant != kVariedConstant)
			for (u32 k = 0; k < n; ++k)
				src1.m_Data[k] = u32(s32(s.m_Constant));
		if (c.m_Type.m_Kind == OxTest::EModelKind::Int && src1Constant)
		{
			// See IntRightConstants: counts below 32, no INT_MIN divisor, for every
			// component (a one-component constant is uniform whatever its value).
			const bool shift = c.m_Op == SOp_MathOp::Op_Bitwise_ShiftLeft || c.m_Op == SOp_MathOp::Op_Bitwise_ShiftRight || c.m_Op == SOp_MathOp::Op_Bitwise_ShiftRightLogical;
			for (u32 k = 0; k < n; ++k)
			{
				if (shift)
					src1.m_Data[k] &= 31u;
				if (c.m_Op == SOp_MathOp::Op_Div && src1.m_Data[k] == 0x80000000u)
					src1.m_Data[k] = 0x80000001u;
			}
		}
		std::vector<u32> dstBefore(dst.m_Data, dst.m_Data + dst.WordsToEnd());

		CCBCPUMetaRegisters::SRegister table[kSlots * CCBCPUMetaRegisters::kBanksPerSlot] = {};
		CCBCPUMetaRegisters registers;
		registers.m_Registers = table;
		registers.m_StreamDimensions = s.m_Count;
		const EBaseTypeID type = c.m_Type.m_Type;
		const CVMRegID dstId = CVMRegID::Build(0, Compiler::MetaType_Stream, type);
		const CVMRegID src0Id = CVMRegID::Build(1, src0Constant ? Compiler::MetaType_Constant : Compiler::MetaType_Stream, type);
		const CVMRegID src1Id = unary ? CVMRegID::INVALID : CVMRegID::Build(2, src1Constant ? Compiler::MetaType_Constant : Compiler::MetaType_Stream, type);
		registers.SelectRegister(dstId) = {dst.m_Data, dst.m_Bytes};
		registers.SelectRegister(src0Id) = {src0.m_Data, src0.m_Bytes};
		if (!unary)
			registers.SelectRegister(src1Id) = {src1.m_Data, src1.m_Bytes};

		log.m_OperandEnd[Operand_Dst] = dst.ElementsEnd();
		log.m_OperandEnd[Operand_Src0] = src0.ElementsEnd();
		log.m_OperandEnd[Operand_Src1] = unary ? 0 : src1.ElementsEnd();

		std::vector<u8> code;
		OxTest::EmitEncoded(code, EOp(c.m_Op), dstId, src0Id, src1Id);
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext ctx(&program, bindings, registers, debugCtx);
		u32 reports = 0;
		{
			OxTest::CAssertCapture capture;
			record.m_RunStatus = CBVM::CInterpreter::Run(ctx, code.data(), u32(code.size()), s.m_Path).m_Status;
			reports = u32(capture.Count());
		}
		record.m_Reports = reports;

		// The model: a stream's element i at word i * n, a constant's at word 0.
		std::vector<u32> expected, alternative;
		const u32 stride0 = src0Constant ? 0 : n;
		const u32 stride1 = src1Constant ? 0 : n;
		OxTest::ModelStream(EOp(c.m_Op), c.m_Type.m_Kind, n, s.m_Count, src0.m_Data, stride0, unary ? nullptr : src1.m_Data, stride1, expected, &alternative);
		// Float modulo by a one-value divisor over more than one element multiplies by
		// one reciprocal on the standard path (docs/embedding.md, "Two execution paths").
		if (c.m_Type.m_Kind == OxTest::EModelKind::Float && c.m_Op == SOp_MathOp::Op_Mod && src1Constant && s.m_Path == CBVM::ExecPath_Standard && s.m_Count > 1)
			for (u32 w = 0; w < s.m_Count * n; ++w)
				expected[w] = alternative[w] = FloatKernelTest::ModelModByReciprocal(src0.m_Data[w], src1.m_Data[w % n]);

		u32 mismatches = 0;
		if (expected.size() != std::size_t(s.m_Count) * n)
		{
			SetFirstMismatch(record, "the model has no value for this operator");
			mismatches = 1;
		}
		else
			for (u32 w = 0; w < s.m_Count * n; ++w)
				if (dst.m_Data[w] != expected[w] && dst.m_Data[w] != alternative[w])
				{
					if (mismatches++ == 0)
						SetFirstMismatch(record, "word " + std::to_string(w) + " (element " + std::to_string(w / n) + ", component " + std::to_string(w % n) + "): a=" + Hex(src0.m_Data[src0Constant ? w % n : w]) +
											 (unary ? std::string() : " b=" + Hex(src1.m_Data[src1Constant ? w % n : w])) + " got " + Hex(dst.m_Data[w]) + " expected " + Hex(expected[w]));
				}
		record.m_Mismatches = mismatches;
		u32 paddingWritten = 0;
		for (u32 w = s.m_Count * n; w < dst.WordsToEnd(); ++w)
			paddingWritten += dst.m_Data[w] != dstBefore[w] ? 1u : 0u;
		record.m_PaddingWritten = paddingWritten;
		record.m_Ran = 1;
	}

	// Runs the stages of a case in a child and reports every finding as a test failure.
	// A fault ends its child: the stages after the faulting one run in a new child, so
	// that every stage that faults is reported.
	void RunCase(const SBoundsCase &c, const std::vector<SStage> &stages, u32 seed)
	{
		ASSERT_LE(stages.size(), std::size_t(kMaxStages));
		CSharedLog shared;
		ASSERT_NE(shared.Log(), nullptr) << "no shared memory";
		SChildLog &log = *shared.Log();
		CWordSource words(c.m_Type.m_Kind, seed);
		u32 maxCount = 0;
		for (const SStage &stage : stages)
			maxCount = std::max(maxCount, stage.m_Count);
		u32 faults = 0;
		for (u32 first = 0; first < stages.size();)
		{
			log.m_Signal = 0;
			log.m_Stage = first;
			std::string failure;
			const bool ended = RunInChild(log, [&](SChildLog &childLog) {
				const SOperandBlocks blocks(CRegisterStorage::CapacityFor(maxCount * c.m_Type.m_Components * 4));
				for (u32 i = first; i < stages.size(); ++i)
					RunStage(childLog, i, c, stages[i], blocks, words);
			}, failure);
			ASSERT_TRUE(ended) << failure << " during " << StageText(stages[log.m_Stage]);
			if (log.m_Signal == 0)
				break;
			ADD_FAILURE() << StageText(stages[log.m_Stage]) << ": " << FaultText(log);
			++faults;
			first = log.m_Stage + 1;
		}
		u32 ran = 0;
		for (u32 i = 0; i < stages.size(); ++i)
		{
			const SStageRecord &r = log.m_Stages[i];
			if (!r.m_Ran)
				continue;
			++ran;
			const std::string label = StageText(stages[i]);
			EXPECT_EQ(r.m_RunStatus, u32(CBVM::RunStatus_Ok)) << label;
			EXPECT_EQ(r.m_Reports, 0u) << label << ": assertion reports";
			EXPECT_EQ(r.m_Mismatches, 0u) << label << ": first mismatch: " << r.m_FirstMismatch;
			EXPECT_EQ(r.m_PaddingWritten, 0u) << label << ": destination words past the last element were written";
		}
		// Every stage ran to its end but the ones that faulted.
		EXPECT_EQ(ran + faults, u32(stages.size()));
	}

	u32 CaseSeed(u32 salt, const SBoundsCase &c)
	{
		return 0xB0DA0000u ^ salt ^ (u32(c.m_Type.m_Type) << 12) ^ (u32(c.m_Op) << 4) ^ u32(c.m_Shape);
	}

	class KernelBounds : public ::testing::TestWithParam<SBoundsCase>
	{
	};

	// Whole batches (and a short count that also fills whole vectors and blocks): every
	// stream ends at an inaccessible page.
	TEST_P(KernelBounds, WholeVectorsReadNothingPastTheLastElement)
	{
		const SBoundsCase c = GetParam();
		RunCase(c, Stages(c, {8, 48, 96, 480}, ELayout::PageEnd), CaseSeed(0x100u, c));
	}

	// The last batch of a stream may end inside a vector or a block: the tail's values
	// are unchanged and the destination's padding is never written.
	TEST_P(KernelBounds, ARealTailKeepsItsValues)
	{
		const SBoundsCase c = GetParam();
		RunCase(c, Stages(c, {47, 49, 50, 51}, ELayout::Padded), CaseSeed(0x200u, c));
	}

	INSTANTIATE_TEST_SUITE_P(AllOperators, KernelBounds, ::testing::ValuesIn(AllCases()), CaseName);

	//------------------------------------------------------------------------------------
	// The one-element kernels: every operand's element ends at an inaccessible page.

	TEST(KernelBoundsOneElement, ReadsAndWritesOnlyTheElement)
	{
		const u32 seed = 0xB0DA0300u;
		CSharedLog shared;
		ASSERT_NE(shared.Log(), nullptr) << "no shared memory";
		SChildLog &log = *shared.Log();
		OxTest::CSeededRandom random(seed);

		struct SOneCase
		{
			SKernelType m_Type;
			s32 m_Op;
		};
		std::vector<SOneCase> cases;
		for (const SKernelType &type : OxTest::kKernelTypes)
			for (s32 op = 0; op < s32(SOp_MathOp::__MaxOps); ++op)
				if (OxTest::ModelSupports(type.m_Kind, EOp(op)))
					cases.push_back({type, op});
		ASSERT_LE(cases.size(), std::size_t(kMaxStages) * 4);

		// kMaxStages cases per child.
		for (std::size_t first = 0; first < cases.size(); first += kMaxStages)
		{
			const std::size_t last = std::min(cases.size(), first + kMaxStages);
			std::memset(static_cast<void *>(&log), 0, sizeof(log));
			std::string failure;
			const bool ended = RunInChild(log, [&](SChildLog &childLog) {
				for (std::size_t i = first; i < last; ++i)
				{
					const SOneCase &oc = cases[i];
					SStageRecord &record = childLog.m_Stages[i - first];
					childLog.m_Stage = u32(i - first);
					const u32 n = oc.m_Type.m_Components;
					const bool unary = Unary(oc.m_Op);
					CPageEndBlock d(4 * n), a(4 * n), b(4 * n);
					u32 *dw = reinterpret_cast<u32 *>(d.End()) - n;
					u32 *aw = reinterpret_cast<u32 *>(a.End()) - n;
					u32 *bw = reinterpret_cast<u32 *>(b.End()) - n;
					for (u32 k = 0; k < n; ++k)
					{
						aw[k] = u32(random());
						bw[k] = u32(random());
						dw[k] = OxTest::GuardWord(k);
					}
					childLog.m_OperandEnd[Operand_Dst] = reinterpret_cast<std::uintptr_t>(d.End());
					childLog.m_OperandEnd[Operand_Src0] = reinterpret_cast<std::uintptr_t>(a.End());
					childLog.m_OperandEnd[Operand_Src1] = unary ? 0 : reinterpret_cast<std::uintptr_t>(b.End());
					const MathOp::EKernelRow row = MathOp::_KernelRowOfType(oc.m_Type.m_Type);
					const MathOp::FnOp2Single fn = MathOp::_FnSingleLookup[std::size_t(oc.m_Op) * MathOp::__MaxKernelRows + row];
					if (fn == nullptr)
					{
						record.m_Mismatches = 1;
						SetFirstMismatch(record, "no one-element kernel");
						continue;
					}
					OxTest::CAssertCapture capture;
					fn(dw, aw, unary ? nullptr : bw);
					record.m_Reports = u32(capture.Count());
					record.m_RunStatus = u32(CBVM::RunStatus_Ok);
					for (u32 k = 0; k < n; ++k)
					{
						// One element divides exactly, float modulo included.
						const u32 expected = OxTest::ModelComponent(oc.m_Type.m_Kind, EOp(oc.m_Op), aw[k], bw[k]);
						const u32 alternative = OxTest::ModelAlternative(oc.m_Type.m_Kind, EOp(oc.m_Op), aw[k], bw[k]);
						if (dw[k] != expected && dw[k] != alternative && record.m_Mismatches++ == 0)
							SetFirstMismatch(record, "component " + std::to_string(k) + ": got " + Hex(dw[k]) + " expected " + Hex(expected));
					}
					record.m_Ran = 1;
				}
			}, failure);
			const auto label = [&](std::size_t i) { return std::string(cases[i].m_Type.m_Name) + " " + OxTest::OpMnemonic(cases[i].m_Op); };
			ASSERT_TRUE(ended) << failure << " during " << label(first + log.m_Stage);
			if (log.m_Signal != 0)
				ADD_FAILURE() << label(first + log.m_Stage) << ": " << FaultText(log);
			for (std::size_t i = first; i < last; ++i)
			{
				const SStageRecord &r = log.m_Stages[i - first];
				if (log.m_Signal == 0)
				{
					EXPECT_EQ(r.m_Ran, 1u) << label(i);
				}
				EXPECT_EQ(r.m_Reports, 0u) << label(i);
				EXPECT_EQ(r.m_Mismatches, 0u) << label(i) << ": " << r.m_FirstMismatch;
			}
		}
	}
}
