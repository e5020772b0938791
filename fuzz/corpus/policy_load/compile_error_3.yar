rule E { condition: nothing }
rule E { condition: true }