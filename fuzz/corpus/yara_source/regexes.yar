rule r { strings: $a = /a\/b[{"]/is fullword $b = /\/\// condition: #a \ 2 == 1 or $b }
