      * What the orders in a text capture file add up to: each insert
      * adds its amount, each delete takes its old one away, an update
      * counts with the difference.  The record is the copybook that
      * fwlog layout makes of the forward log.
       IDENTIFICATION DIVISION.
       PROGRAM-ID. TURNOVER.
       ENVIRONMENT DIVISION.
       INPUT-OUTPUT SECTION.
       FILE-CONTROL.
           SELECT CAPTURE-FILE ASSIGN TO "CAPTURE"
               ORGANIZATION IS LINE SEQUENTIAL.
       DATA DIVISION.
       FILE SECTION.
       FD  CAPTURE-FILE.
       COPY "orders.cpy".
       WORKING-STORAGE SECTION.
       01  END-OF-FILE            PIC X VALUE "N".
       01  TURNOVER-SUM           PIC S9(9)V99 VALUE 0.
       01  SHOWN-ID               PIC Z(8)9.
       01  SHOWN-AMOUNT           PIC -(8)9.99.
       PROCEDURE DIVISION.
       MAIN-PART.
           OPEN INPUT CAPTURE-FILE.
           PERFORM UNTIL END-OF-FILE = "Y"
               READ CAPTURE-FILE
                   AT END MOVE "Y" TO END-OF-FILE
                   NOT AT END PERFORM TAKE-RECORD
               END-READ
           END-PERFORM.
           CLOSE CAPTURE-FILE.
           MOVE TURNOVER-SUM TO SHOWN-AMOUNT.
           DISPLAY "turnover    " SHOWN-AMOUNT.
           STOP RUN.
       TAKE-RECORD.
           EVALUATE TRUE
               WHEN H-INSERT
                   ADD R-AMOUNT TO TURNOVER-SUM
               WHEN H-DELETE
                   SUBTRACT R-AMOUNT FROM TURNOVER-SUM
               WHEN H-UPDATE
                   SUBTRACT R-AMOUNT FROM TURNOVER-SUM
                   ADD N-AMOUNT TO TURNOVER-SUM
           END-EVALUATE.
           MOVE R-ID TO SHOWN-ID.
           MOVE R-AMOUNT TO SHOWN-AMOUNT.
           DISPLAY H-OPERATION SHOWN-ID SHOWN-AMOUNT.
