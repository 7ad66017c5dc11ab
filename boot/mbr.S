/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Boot code for sector 0 of a disk: starts the active slot of the MBR.
 *
 * The BIOS loads sector 0 at 0:7C00 and jumps there with the drive's number in DL. This code moves out of the way, finds
 * the one slot with the flag 0x80, loads that slot's first sector at 0:7C00 and jumps there with
 *
 *     DL            the drive, as the BIOS gave it
 *     DS:SI, ES:SI  the slot's 16 bytes; BP has the same address
 *     SS:SP         0:7C00
 *
 * The sector is read by its number (INT 13h, extensions 41h and 42h), as 32 bits without a sign. Drives without the
 * extensions, floppy disks for example, are read by cylinder, head and sector with the geometry that the BIOS reports.
 * The BIOS counts in the drive's sectors as the slot does, so their size does not matter here.
 *
 * A failure is printed, then INT 18h tells the BIOS that this disk starts nothing. Processor: 80386 or later. The code
 * is at most 440 bytes; the disk signature and the slots follow it.
 *
 * boot/mbr.inc holds the assembled bytes, made by tools/dev/assemble_boot_code.
 */
        .code16
        .intel_syntax noprefix
        .text
        .globl  start

        .set    LOADED, 0x7C00          /* where the BIOS loads a boot sector and starts it */
        .set    HOME, 0x0600            /* where this code runs */
        .set    DRIVE, HOME             /* the drive's number; the bytes here have run by then */
        .set    SLOTS, HOME + 446
        .set    SIGNATURE, LOADED + 510
        .set    TRIES, 3

start:
        cli
        xor     ax, ax
        mov     ss, ax
        mov     sp, LOADED
        mov     ds, ax
        mov     es, ax
        sti
        cld
        mov     si, sp
        mov     di, HOME
        mov     cx, 256
        rep movsw
        .byte   0xEA                    /* jmp 0:moved; assemblers differ in how they spell it */
        .word   HOME + moved - start, 0
moved:
        mov     [DRIVE], dl

/* The active slot's address goes to BP. */
        mov     si, SLOTS
        xor     bp, bp
        mov     cl, 4                   /* CH is 0 since the copy */
slot:
        cmp     byte ptr [si], 0x80
        jne     next
        test    bp, bp
        jnz     several
        mov     bp, si
next:
        add     si, 16
        loop    slot
        test    bp, bp
        jz      none
        cmp     dword ptr [bp + 8], 0   /* sector 0 is this code, which would start itself for ever */
        je      unstartable

/* Reads the slot's first sector. Drives may fail at first, so there is more than one try. */
        mov     byte ptr [DRIVE + 1], TRIES
read:
        mov     word ptr [SIGNATURE], 0 /* there is one of sector 0, which a read without effect would leave */
        mov     dl, [DRIVE]
        mov     ah, 0x41
        mov     bx, 0x55AA
        int     0x13
        jc      geometry
        cmp     bx, 0xAA55
        jne     geometry
        test    cl, 1
        jz      geometry

        xor     eax, eax                /* the disk address packet, from its end */
        push    eax                     /* sector, upper half */
        push    dword ptr [bp + 8]      /* sector, lower half */
        push    ax                      /* segment */
        push    LOADED                  /* offset */
        push    1                       /* sectors */
        push    16                      /* size of the packet */
        mov     si, sp
        mov     dl, [DRIVE]
        mov     ah, 0x42
        int     0x13
        jmp     done

geometry:
        mov     dl, [DRIVE]
        mov     ah, 0x08
        int     0x13
        jc      done
        and     cx, 0x3F                /* sectors of a track */
        stc
        jz      done
        movzx   ecx, cx
        movzx   ebx, dh                 /* the last head */
        inc     bx
        mov     eax, [bp + 8]
        xor     edx, edx
        div     ecx
        mov     cl, dl
        inc     cx                      /* sectors count from 1 */
        xor     edx, edx
        div     ebx                     /* EAX cylinder, DX head */
        cmp     eax, 1024
        cmc
        jc      done                    /* beyond what this call can name */
        mov     ch, al
        shl     ah, 6
        or      cl, ah
        mov     dh, dl
        mov     dl, [DRIVE]
        push    ds
        pop     es                      /* INT 13h, 08h changes it */
        mov     bx, LOADED
        mov     ax, 0x0201
        int     0x13

/* The carry flag is set after a failure. */
done:
        mov     sp, LOADED
        jnc     start_slot
        mov     dl, [DRIVE]
        xor     ax, ax                  /* reset the drive */
        int     0x13
        dec     byte ptr [DRIVE + 1]
        jnz     read
        mov     si, offset READ_ERROR
        jmp     fail

start_slot:
        cmp     word ptr [SIGNATURE], 0xAA55
        jne     unstartable
        mov     si, bp
        mov     dl, [DRIVE]
        push    ds
        pop     es
        .byte   0xEA                    /* jmp 0:LOADED */
        .word   LOADED, 0

none:
        mov     si, offset NO_SLOT
        jmp     fail
several:
        mov     si, offset SEVERAL_SLOTS
        jmp     fail
unstartable:
        mov     si, offset NO_BOOT_SECTOR

/* Prints the text at SI and gives up. */
fail:
        lodsb
        test    al, al
        jz      give_up
        mov     ah, 0x0E
        mov     bx, 0x0007
        int     0x10
        jmp     fail
give_up:
        int     0x18
stop:
        hlt
        jmp     stop

no_slot:
        .asciz  "No active slot in the MBR.\r\n"
several_slots:
        .asciz  "More than one active slot in the MBR.\r\n"
read_error:
        .asciz  "Read error at the active slot.\r\n"
no_boot_sector:
        .asciz  "No boot sector in the active slot.\r\n"

/* Where the texts are when this code runs. */
        .set    NO_SLOT, HOME + no_slot - start
        .set    SEVERAL_SLOTS, HOME + several_slots - start
        .set    READ_ERROR, HOME + read_error - start
        .set    NO_BOOT_SECTOR, HOME + no_boot_sector - start
