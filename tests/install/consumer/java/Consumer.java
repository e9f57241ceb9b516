import com.orvo.ksa.common.jobstatus.Job;

/** Loads the natives of the prefix its jar came from and asks the installed ksd. */
public final class Consumer {
    public static void main(String[] args) {
        int id = new Job().lookup(args[0]);
        System.out.println(id);
        System.exit(id > 0 ? 0 : 1);
    }
}
