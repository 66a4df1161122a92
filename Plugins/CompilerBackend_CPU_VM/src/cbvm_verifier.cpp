// The bytecode verifier: every check that the math-op workers assert (and a few they
// cannot make, such as slot bounds and 64-bit sizes), made before anything runs.

#include "cbvm_verifier.h"

#include <cstdarg>
#include <cstdio>

namespace Orvex
{
	namespace CBVM
	{
		namespace
		{
			using SOp_MathOp = Compiler::IR::SOp_MathOp;

			constexpr u32 kMissing = CVMRegID::kInvalidBits;
			constexpr u32 kWellFormedLimit = CVMRegID::kWellFormedLimit;

			// Register id fields, read without the accessors' assertions.
			u32 _Slot(u32 bits) { return CVMRegID::SlotOf(bits); }
			u32 _BankIndex(u32 bits) { return CVMRegID::BankIndexOf(bits); }
			u32 _TypeIndex(u32 bits) { return CVMRegID::TypeFieldOf(bits); }
			bool _PerElement(u32 bits) { return CVMRegID::PerElementOf(bits); }
			const SBaseTypeInfo &_TypeInfo(u32 bits) { return kBaseTypes[CVMRegID::TypeFieldOf(bits)]; }
			u32 _ElementSize(u32 bits) { return _TypeInfo(bits).m_Size; }

			// "stream.3:float3", as the tools write registers.
			struct SRegisterText
			{
				char m_Text[48];
				explicit SRegisterText(u32 bits)
				{
					const EBaseTypeID type = EBaseTypeID(s32(_TypeIndex(bits)) - 1);
					const char *typeName = BaseTypeName(type);
					const char *bankName = Compiler::MetaTypeName(Compiler::EMetaType(_BankIndex(bits) + 1));
					if (typeName[0] == '?')
						std::snprintf(m_Text, sizeof(m_Text), "%s.%u:type%u", bankName, _Slot(bits), _TypeIndex(bits));
					else
						std::snprintf(m_Text, sizeof(m_Text), "%s.%u:%s", bankName, _Slot(bits), typeName);
				}
			};

			// The kernel a source type runs through (bools through the integer kernels,
			// quaternions through the four-float one): the type table's kind.
			struct SKernelType
			{
				bool m_Supported = false;
				bool m_Float = false;
				u32 m_Components = 0;
			};

			SKernelType _KernelType(u32 bits)
			{
				const SBaseTypeInfo &type = _TypeInfo(bits);
				if (type.m_Kind == ElementKind_None)
					return {};
				return {true, type.m_Kind == ElementKind_Float, type.m_Components};
			}

			bool _IsShift(SOp_MathOp::EOp op)
			{
				return SOp_MathOp::OperatorTraits(op).m_IntKernel == SOp_MathOp::IntKernel_Shift;
			}

			// Size of the instruction at 'offset' when its opcode is a math op and it lies
			// inside the buffer; 0 otherwise.
			u32 _DecodableSize(const u8 *bytecode, u32 size, u32 offset)
			{
				const u8 opcode = bytecode[offset];
				if (opcode < Opcode_MathOp || opcode > Opcode_MathOpDiv)
					return 0;
				const u32 need = opcode == Opcode_MathOp ? CMetaOp_MathOp::kGenericSize : CMetaOp_MathOp::kSpecializedSize;
				return size - offset >= need ? need : 0;
			}

			const u8 *_RegisterBlock(const u8 *instruction)
			{
				return instruction + (instruction[0] == Opcode_MathOp ? CMetaOp_MathOp::kGenericRegistersOffset : CMetaOp_MathOp::kSpecializedRegistersOffset);
			}

			// One operand's register-file entry and what the instruction needs of it.
			struct SOperandUse
			{
				u32 m_Bits = 0;
				u64 m_Elements = 0;		// elements read or written
				bool m_Writes = false;	// the destination
			};

			class CWalk
			{
			public:
				CWalk(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters *registers, u32 slotCount, SVerifyProblem *problems, u32 capacity, u32 flags)
				: m_Bytecode(bytecode), m_Size(size), m_Registers(registers), m_SlotCount(slotCount), m_Problems(problems), m_Capacity(problems != nullptr ? capacity : 0), m_Flags(flags) {}

				SVerifyResult Run()
				{
					for (u32 offset = 0; offset < m_Size;)
					{
						const u32 advance = _Instruction(offset);
						if (advance == 0)
							break;
						offset += advance;
					}
					return m_Result;
				}

			private:
				struct SInstruction
				{
					u32 m_Offset;
					SOp_MathOp::EOp m_Op;
					u32 m_Dst, m_Src0, m_Src1;
					bool HasSrc1() const { return m_Src1 != kMissing; }
				};

				// Returns the instruction's size, or 0 when the walk cannot go on.
				u32 _Instruction(u32 offset)
				{
					const u8 opcode = m_Bytecode[offset];
					if (opcode < Opcode_MathOp || opcode > Opcode_MathOpDiv)
					{
						if (OpcodeName(opcode)[0] != '?')
							_Report(offset, VerifyError_UnknownOpcode, "opcode %u (%s) is not a math-op instruction (113 to 117)", opcode, OpcodeName(opcode));
						else
							_Report(offset, VerifyError_UnknownOpcode, "unknown opcode %u (math-op opcodes are 113 to 117)", opcode);
						return 0;
					}
					const u32 need = _DecodableSize(m_Bytecode, m_Size, offset);
					if (need == 0)
					{
						const u32 full = opcode == Opcode_MathOp ? CMetaOp_MathOp::kGenericSize : CMetaOp_MathOp::kSpecializedSize;
						_Report(offset, VerifyError_Truncated, "truncated instruction: opcode %u (%s) needs %u bytes, %u left", opcode, OpcodeName(opcode), full, m_Size - offset);
						return 0;
					}
					++m_Result.m_Instructions;

					const u8 *at = m_Bytecode + offset;
					const u32 op = opcode == Opcode_MathOp ? at[CMetaOp_MathOp::kGenericOperatorOffset] : u32(opcode - Opcode_MathOpAdd);
					if (op >= u32(SOp_MathOp::__MaxOps))
					{
						_Report(offset, VerifyError_UnknownOperator, "unknown operator %u (operators are 0 to %d)", op, SOp_MathOp::__MaxOps - 1);
						return need;
					}
					const u8 *block = _RegisterBlock(at);
					const SInstruction ins = {offset, SOp_MathOp::EOp(op), OXLoadAndSwapLittleEndian<u32>(block + CMetaOp_MathOp::kDstRegOffset),
											  OXLoadAndSwapLittleEndian<u32>(block + CMetaOp_MathOp::kSrcReg0Offset), OXLoadAndSwapLittleEndian<u32>(block + CMetaOp_MathOp::kSrcReg1Offset)};
					// Ids and operand count first: past them the fields mean nothing.
					if (!_CheckIds(ins))
						return need;
					const bool typesOk = _CheckTypes(ins);
					// Sizes need one element size: source 0's, when the destination agrees
					// (the VM sizes both sources by source 0's type).
					const SKernelType kernel = _KernelType(ins.m_Src0);
					const u32 elementSize = kernel.m_Supported && _ElementSize(ins.m_Dst) == kernel.m_Components * 4 ? kernel.m_Components * 4 : 0;
					if (m_Registers != nullptr && _CheckRegisters(ins, elementSize) && typesOk)
						_CheckReportedForms(ins);
					return need;
				}

				bool _CheckIds(const SInstruction &ins)
				{
					const u32 errors = m_Result.m_Errors;
					_CheckId(ins.m_Offset, ins.m_Dst, "destination");
					_CheckId(ins.m_Offset, ins.m_Src0, "source 0");
					if (ins.HasSrc1() && ins.m_Src1 >= kWellFormedLimit)
						_Report(ins.m_Offset, VerifyError_IllFormedRegister, "source 1 register id 0x%08x is ill-formed: bits 30 and 31 must be clear", ins.m_Src1);
					const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(ins.m_Op);
					const bool binary = traits.m_ParameterCount > 1;
					if (binary && !ins.HasSrc1())
						_Report(ins.m_Offset, VerifyError_OperandCount, "'%s' takes 2 sources, source 1 is missing (0xffffffff)", traits.m_Name);
					if (!binary && ins.HasSrc1())
						_Report(ins.m_Offset, VerifyError_OperandCount, "'%s' takes 1 source, source 1 must be 0xffffffff, not 0x%08x", traits.m_Name, ins.m_Src1);
					return m_Result.m_Errors == errors;
				}

				void _CheckId(u32 offset, u32 bits, const char *role)
				{
					if (bits == kMissing)
						_Report(offset, VerifyError_IllFormedRegister, "%s register is missing (0xffffffff)", role);
					else if (bits >= kWellFormedLimit)
						_Report(offset, VerifyError_IllFormedRegister, "%s register id 0x%08x is ill-formed: bits 30 and 31 must be clear", role, bits);
				}

				bool _CheckTypes(const SInstruction &ins)
				{
					const u32 errors = m_Result.m_Errors;
					const SKernelType kernel = _KernelType(ins.m_Src0);
					const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(ins.m_Op);
					if (!kernel.m_Supported)
						_Report(ins.m_Offset, VerifyError_UnsupportedType, "source type of %s has no math kernel (kernels: float..float4, quaternion, i32..int4, bool..bool4)",
								SRegisterText(ins.m_Src0).m_Text);
					if (ins.HasSrc1() && _TypeIndex(ins.m_Src1) != _TypeIndex(ins.m_Src0))
						_Report(ins.m_Offset, VerifyError_SourceTypesDiffer, "source types differ: source 0 is %s, source 1 is %s", SRegisterText(ins.m_Src0).m_Text,
								SRegisterText(ins.m_Src1).m_Text);
					if (kernel.m_Supported && kernel.m_Float && !traits.FloatSupported())
						_Report(ins.m_Offset, VerifyError_BitwiseOnFloat, "'%s' is a bitwise operator: it takes int and bool operands, source 0 is %s", traits.m_Name,
								SRegisterText(ins.m_Src0).m_Text);
					if (kernel.m_Supported && _ElementSize(ins.m_Dst) != kernel.m_Components * 4)
						_Report(ins.m_Offset, VerifyError_DestinationType, "destination %s holds %u-byte elements; '%s' of %s sources writes %u-byte elements",
								SRegisterText(ins.m_Dst).m_Text, _ElementSize(ins.m_Dst), traits.m_Name, BaseTypeName(EBaseTypeID(s32(_TypeIndex(ins.m_Src0)) - 1)),
								kernel.m_Components * 4);
					return m_Result.m_Errors == errors;
				}

				u64 _EvalCount(const SInstruction &ins) const
				{
					return _PerElement(ins.m_Dst) ? u64(m_Registers->m_StreamDimensions) : 1;
				}

				// Slots, storage and alignment of each distinct register; sizes when the
				// element size is known (not 0). True when nothing was wrong.
				bool _CheckRegisters(const SInstruction &ins, u32 elementSize)
				{
					const u32 errors = m_Result.m_Errors;
					const u64 evalCount = _EvalCount(ins);
					SOperandUse uses[3];
					u32 count = 0;
					auto add = [&](u32 bits, u64 elements, bool writes) {
						for (u32 i = 0; i < count; ++i)
							if (_Slot(uses[i].m_Bits) == _Slot(bits) && _BankIndex(uses[i].m_Bits) == _BankIndex(bits))
							{
								// The same storage in two roles: it must satisfy the larger need.
								if (elements > uses[i].m_Elements)
									uses[i] = {uses[i].m_Bits, elements, writes};
								return;
							}
						uses[count++] = {bits, elements, writes};
					};
					// A per-element source steps through evalCount elements; any other
					// source is read once (broadcast, or a one-element evaluation).
					add(ins.m_Dst, evalCount, true);
					add(ins.m_Src0, _PerElement(ins.m_Src0) ? evalCount : 1, false);
					if (ins.HasSrc1())
						add(ins.m_Src1, _PerElement(ins.m_Src1) ? evalCount : 1, false);

					for (u32 i = 0; i < count; ++i)
						_CheckRegister(ins.m_Offset, uses[i], elementSize);
					return m_Result.m_Errors == errors;
				}

				void _CheckRegister(u32 offset, const SOperandUse &use, u32 elementSize)
				{
					const SRegisterText name(use.m_Bits);
					const u32 slot = _Slot(use.m_Bits);
					if (m_Registers->m_Registers == nullptr || slot >= m_SlotCount)
					{
						_Report(offset, VerifyError_SlotOutOfRange, "slot %u of %s is outside the register file (%u slots)", slot, name.m_Text,
								m_Registers->m_Registers == nullptr ? 0u : m_SlotCount);
						return;
					}
					const CCBCPUMetaRegisters::SRegister &entry = m_Registers->SelectWellFormed(use.m_Bits);
					if (entry.m_RawData == nullptr)
					{
						_Report(offset, VerifyError_NoStorage, "register %s has no storage (null data pointer)", name.m_Text);
						return;
					}
					if (!Mem::IsAligned<32>(entry.m_RawData))
						_Report(offset, VerifyError_Misaligned, "storage of register %s is not 32-byte aligned (address %% 32 = %u)", name.m_Text,
								u32(reinterpret_cast<std::uintptr_t>(entry.m_RawData) & 31u));
					const u64 needed = use.m_Elements * elementSize;
					if (elementSize != 0 && entry.m_Size < needed)
						_Report(offset, VerifyError_RegisterTooSmall, "register %s holds %u bytes, too small: this instruction %s %llu element%s (%llu bytes)", name.m_Text,
								entry.m_Size, use.m_Writes ? "writes" : "reads", static_cast<unsigned long long>(use.m_Elements), use.m_Elements == 1 ? "" : "s",
								static_cast<unsigned long long>(needed));
				}

				// The legal forms that the standard path reports (cbvm_math_op_paths.h),
				// with the same conditions: a Constant or Normal source is broadcast when
				// the evaluation count is not 1.
				void _CheckReportedForms(const SInstruction &ins)
				{
					const u64 evalCount = _EvalCount(ins);
					if (evalCount == 1)
						return;
					const SKernelType kernel = _KernelType(ins.m_Src0);
					const bool broadcast0 = !_PerElement(ins.m_Src0);
					const bool broadcast1 = ins.HasSrc1() && !_PerElement(ins.m_Src1);
					const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(ins.m_Op);
					const char *name = traits.m_Name;
					if (kernel.m_Float && traits.m_FloatKernel == SOp_MathOp::FloatKernel_Neg && broadcast0)
						_Report(ins.m_Offset, VerifyError_FloatNegOfConstant, "float 'neg' of %s (one value) into a per-element destination is refused by the standard path "
								"(nothing written); negate into a constant register, or use 'sub' from zero", SRegisterText(ins.m_Src0).m_Text);
					if (kernel.m_Float && traits.m_FloatKernel == SOp_MathOp::FloatKernel_Mod && broadcast0 && broadcast1)
						_Report(ins.m_Offset, VerifyError_FloatModOfConstants, "float 'mod' of two one-value sources (%s, %s) into a per-element destination is reported "
								"by the standard path; compute it into a constant register", SRegisterText(ins.m_Src0).m_Text, SRegisterText(ins.m_Src1).m_Text);
					if (kernel.m_Float || !_IsShift(ins.m_Op) || !broadcast1 || evalCount * kernel.m_Components < 12)
						return;
					// A uniform count runs whole 12-integer blocks by vector shifts. Its value
					// is known here only when no instruction writes the count's bytes (under
					// every flag: the value read now says nothing about the run otherwise).
					const SRegisterText count(ins.m_Src1);
					const CCBCPUMetaRegisters::SRegister &entry = m_Registers->SelectWellFormed(ins.m_Src1);
					if (_WrittenByProgram(entry.m_RawData, kernel.m_Components * 4))
					{
						_Report(ins.m_Offset, VerifyError_ShiftCountUnchecked, "'%s' count register %s is written by this program: its value at run time is not checked here "
								"(a uniform count above 31 is reported by the standard path)", name, count.m_Text);
						return;
					}
					const s32 *words = static_cast<const s32 *>(entry.m_RawData);	// one whole element, checked above
					for (u32 i = 1; i < 4; ++i)
						if (words[i % kernel.m_Components] != words[0])
							return;	// not uniform: the per-lane path, which uses count & 31
					if (u32(words[0]) > 31)
						_Report(ins.m_Offset, VerifyError_ShiftCountAbove31, "uniform '%s' count %u in %s is above 31: the standard path shifts whole blocks out (0 or the sign fill) "
								"and reports it, the Low path uses the low five bits; keep counts in 0..31", name, u32(words[0]), count.m_Text);
				}

				// True when an instruction of this program may write a byte of [data, data +
				// size). Decided by storage, not by (slot, bank): two table entries may view
				// the same bytes. An instruction writes at most the elements it evaluates from
				// its destination's start, each at most as wide as the larger of the source's
				// and the destination's element (the Low path writes source-sized elements
				// densely), whether or not the register is large enough for them.
				bool _WrittenByProgram(const void *data, u32 size) const
				{
					const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(data);
					const std::uintptr_t last = first + size;
					for (u32 offset = 0; offset < m_Size;)
					{
						const u32 need = _DecodableSize(m_Bytecode, m_Size, offset);
						if (need == 0)
							return false;
						const u8 *block = _RegisterBlock(m_Bytecode + offset);
						const u32 dst = OXLoadAndSwapLittleEndian<u32>(block + CMetaOp_MathOp::kDstRegOffset);
						const u32 src0 = OXLoadAndSwapLittleEndian<u32>(block + CMetaOp_MathOp::kSrcReg0Offset);
						offset += need;
						if (dst >= kWellFormedLimit || _Slot(dst) >= m_SlotCount)
							continue;
						const CCBCPUMetaRegisters::SRegister &written = m_Registers->SelectWellFormed(dst);
						if (written.m_RawData == nullptr)
							continue;
						const u32 widest = _ElementSize(dst) > _ElementSize(src0) ? _ElementSize(dst) : _ElementSize(src0);
						const u64 extent = (_PerElement(dst) ? u64(m_Registers->m_StreamDimensions) : 1) * widest;
						const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(written.m_RawData);
						const std::uintptr_t end = begin + std::uintptr_t(extent);
						if (begin < last && first < end)
							return true;
					}
					return false;
				}

				EVerifySeverity _Severity(EVerifyError code) const
				{
					if (code == VerifyError_ShiftCountUnchecked)
						return VerifySeverity_Warning;
					const bool reported = code == VerifyError_FloatNegOfConstant || code == VerifyError_FloatModOfConstants || code == VerifyError_ShiftCountAbove31;
					return reported && (m_Flags & VerifyFlag_AllowReportedForms) != 0 ? VerifySeverity_Warning : VerifySeverity_Error;
				}

#if defined(__GNUC__)
				__attribute__((format(printf, 4, 5)))
#endif
				void _Report(u32 offset, EVerifyError code, const char *format, ...)
				{
					const EVerifySeverity severity = _Severity(code);
					const u32 index = m_Result.Problems();
					if (severity == VerifySeverity_Error)
						++m_Result.m_Errors;
					else
						++m_Result.m_Warnings;
					if (index >= m_Capacity)
						return;
					SVerifyProblem &problem = m_Problems[index];
					problem.m_Offset = offset;
					problem.m_Code = code;
					problem.m_Severity = severity;
					va_list args;
					va_start(args, format);
					std::vsnprintf(problem.m_Message, sizeof(problem.m_Message), format, args);
					va_end(args);
				}

				const u8 *m_Bytecode;
				u32 m_Size;
				const CCBCPUMetaRegisters *m_Registers;	// null: structure only
				u32 m_SlotCount;
				SVerifyProblem *m_Problems;
				u32 m_Capacity;
				u32 m_Flags;
				SVerifyResult m_Result;
			};
		}

		SVerifyResult CVerifier::Verify(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters &registers, u32 slotCount, SVerifyProblem *problems, u32 capacity, u32 flags)
		{
			return CWalk(bytecode, size, &registers, slotCount, problems, capacity, flags).Run();
		}

		SVerifyResult CVerifier::Verify(const u8 *bytecode, u32 size, const CRegisterStorage &storage, SVerifyProblem *problems, u32 capacity, u32 flags)
		{
			return Verify(bytecode, size, storage.Registers(), storage.SlotCount(), problems, capacity, flags);
		}

		SVerifyResult CVerifier::VerifyStructure(const u8 *bytecode, u32 size, SVerifyProblem *problems, u32 capacity)
		{
			return CWalk(bytecode, size, nullptr, 0, problems, capacity, VerifyFlag_None).Run();
		}

		const char *VerifyErrorName(EVerifyError code)
		{
			static constexpr const char *kNames[__MaxVerifyErrors] = {
				"none", "unknown opcode", "truncated instruction", "unknown operator", "ill-formed register", "operand count",
				"unsupported type", "source types differ", "bitwise operator on floats", "destination type", "slot out of range",
				"no storage", "misaligned storage", "register too small", "float neg of a constant", "float mod of constants",
				"shift count above 31", "shift count unchecked",
			};
			return u32(code) < __MaxVerifyErrors ? kNames[code] : "?";
		}
	}
}
